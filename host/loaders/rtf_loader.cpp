#include "rtf_loader.h"

#include <memory>

#include "pdf_document.h"
#include "rtf_guard.h"

namespace ternview {

std::string convertRtf(std::string_view rtf, const PageSetup& setup, OfficeTarget target) {
    if (!rtf.starts_with("{\\rtf")) {
        throw LoadError("its text is damaged: it is no RTF");
    }
    try {
        return convertInOffice(guardRtf(rtf, setup), target, usedOffice());
    } catch (const OfficeRefusal&) {
        // The text is worth more than the pictures.
        return convertInOffice(guardRtf(rtf, setup, RtfPictures::kDropped), target, usedOffice());
    }
}

std::unique_ptr<LaidOutDocument> layOutRtf(std::string_view bytes, const PageSetup& setup) {
    return openPdf(convertRtf(bytes, setup, OfficeTarget::kPdf), "the office suite");
}

}  // namespace ternview
