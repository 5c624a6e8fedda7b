// The worker's side of an export: makes the outputs of one message from its document.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "export_options.h"
#include "frames.h"
#include "job.h"
#include "loaders/laid_out_document.h"

namespace ternview {

struct ConversionTask {
    ExportFormat format = ExportFormat::kPdf;
    PageSetup paper;
    HtmlEngine htmlEngine = HtmlEngine::kAuto;
    int resolution = 96;    // dots per inch, of PNG pages
    bool thumbnail = true;  // a small picture of the first page is wanted too
    std::uint32_t documentFormat = 0;
    std::uint64_t fileSize = 0;      // of the mail file, in bytes
    std::filesystem::path document;  // its file; pictures of HTML lie beside it
    std::string title;               // UTF-8, for formats that have one
};

/// Sends the outputs, then the small picture, then the result. An HTML page or a text is there even when no page can be drawn.
void convertDocument(const ConversionTask& task, FrameWriter& out);

/// Does what every worker would have to do first, once for all of them. Nothing of a mail takes part in it.
/// @throws JobError when the format needs something that is not there
void prepareConversions(ExportFormat format);

}  // namespace ternview
