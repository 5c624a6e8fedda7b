// RTF: the office suite lays it out as a PDF, in a process of its own.

#include <memory>
#include <string>

#include "laid_out_document.h"
#include "office/office.h"
#include "pdf_document.h"
#include "rtf_guard.h"

namespace ternview {
namespace {

/// A picture of no known kind makes the suite refuse the whole document; its text is worth more than its pictures.
std::string pdfOf(std::string_view rtf, const PageSetup& setup) {
    try {
        return convertInOffice(guardRtf(rtf, setup), OfficeTarget::kPdf, usedOffice());
    } catch (const OfficeRefusal&) {
        return convertInOffice(guardRtf(rtf, setup, RtfPictures::kDropped), OfficeTarget::kPdf, usedOffice());
    }
}

}  // namespace

std::unique_ptr<LaidOutDocument> layOutRtf(std::string_view bytes, const PageSetup& setup) {
    if (!bytes.starts_with("{\\rtf")) {
        throw LoadError("its text is damaged: it is no RTF");
    }
    return openPdf(pdfOf(bytes, setup), "the office suite");
}

}  // namespace ternview
