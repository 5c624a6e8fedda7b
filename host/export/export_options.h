// What a person asks of an export.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "job.h"

namespace ternview {

enum class ExportFormat { kPdf, kPng, kHtml, kText };

/// What decides how outputs look; all runs that write into one directory have it in common.
struct ExportOptions {
    ExportFormat format = ExportFormat::kPdf;
    std::string paper = "a4";
    int resolution = 96;         // dots per inch, of PNG pages
    std::uint32_t language = 0;  // LANGID, 0: the environment decides
    bool plainText = false;
    bool strict = false;                        // only what the filter itself gives
    HtmlEngine htmlEngine = HtmlEngine::kAuto;  // for pages
};

/// As on the command line, and as the extension of files.
constexpr std::string_view formatName(ExportFormat format) {
    switch (format) {
        case ExportFormat::kPng:
            return "png";
        case ExportFormat::kHtml:
            return "html";
        case ExportFormat::kText:
            return "txt";
        default:
            return "pdf";
    }
}

constexpr std::string_view engineName(HtmlEngine engine) {
    switch (engine) {
        case HtmlEngine::kEmbedded:
            return "embedded";
        case HtmlEngine::kChromium:
            return "chromium";
        default:
            return "auto";
    }
}

}  // namespace ternview
