// What every loader of the host makes of a document: pages that can be drawn. The page output (PNG, PDF) knows no format.
#pragma once

#include <cairo.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace ternview {

/// Paper and margins in CSS pixels (1/96 inch).
struct PageSetup {
    double width = 793.7;    // A4: 210 mm
    double height = 1122.5;  // A4: 297 mm
    double margin = 56.7;    // 15 mm on every side
};

/// In CSS pixels.
struct PaperSize {
    double width;
    double height;
};

/// A document that a loader cannot show; the text is one plain sentence for the person who asked.
class LoadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Where there is a choice: what laid a document out.
struct LayoutOrigin {
    std::string engine;  // "embedded" or "chromium"; empty where there was no choice
    std::string note;    // why it was not the better one, as a part of a sentence; empty when it was
};

class LaidOutDocument {
public:
    virtual ~LaidOutDocument() = default;

    LayoutOrigin origin;

    /// UTF-8; empty when the document has none.
    virtual std::string title() const { return {}; }
    /// At least 1.
    virtual int pageCount() const = 0;
    /// Of one page (0-based): the paper that was asked for, unless the document has its own.
    virtual PaperSize paperSize(int index) const = 0;
    /// Draws one page (0-based) with the origin at the paper's upper left corner, in CSS pixels, on paper that is white already.
    virtual void drawPage(int index, cairo_t* context) = 0;
};

/**
 * Lays a text document out.
 *
 * @param bytes the document; a byte-order mark decides its encoding, else it is UTF-8, else what its bytes look like
 * @throws LoadError
 */
std::unique_ptr<LaidOutDocument> layOutText(std::string_view bytes, const PageSetup& setup);

/**
 * Lays an HTML document out.
 *
 * @param bytes the document
 * @param directory the directory of the HTML file, from which its pictures may be read; none when it came from memory
 * @throws LoadError
 */
std::unique_ptr<LaidOutDocument> layOutHtml(std::string_view bytes, const std::optional<std::filesystem::path>& directory,
                                            const PageSetup& setup);

/**
 * Lays an RTF document out, in the office process that `useOffice` has named.
 *
 * @param bytes the document
 * @throws LoadError, and JobError when the office suite is missing or the time is over
 */
std::unique_ptr<LaidOutDocument> layOutRtf(std::string_view bytes, const PageSetup& setup);

}  // namespace ternview
