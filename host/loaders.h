// The host functions that a filter's requests carry: what the filter calls with the document it has built.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <ternkit/records.h>

#include "job.h"
#include "loaders/laid_out_document.h"

namespace ternview {

/// A document as the filter handed it over. It is valid during the call only, and so is its file.
struct HandedDocument {
    std::uint32_t format = 0;
    std::string_view bytes;
    std::optional<std::filesystem::path> file;  // when it came as a temporary file: that file
};

/// What happens to the document of one call of an export.
class DocumentTarget {
public:
    virtual ~DocumentTarget() = default;

    /// Takes the document. Exceptions are caught by the loaders and become the call's status.
    void take(const HandedDocument& document);

    // What is known of the document afterwards.
    std::uint32_t format = 0;
    std::uint64_t size = 0;
    std::vector<TempFile> tempFiles;
    std::uint32_t pages = 0;
    PaperSize paper{};  // of the first page
    LayoutOrigin origin;
    Failure failure = Failure::kNone;
    std::string detail;

protected:
    /// @param document as handed over; `tempFiles` lists its files already
    virtual void use(const HandedDocument& document) = 0;
};

/// A page in pixels at a resolution in dots per inch.
struct PageGeometry {
    std::uint32_t width;
    std::uint32_t height;
    std::uint32_t resolution;
};

PageGeometry pageGeometry(const PaperSize& paper, int resolution);

/// Lays a document out with the loader of its format.
std::unique_ptr<LaidOutDocument> layOut(const HandedDocument& document, const PageSetup& paper);

/// Attaches the loaders to a request and the target to the loaders, for as long as it lives. The info functions have no
/// argument that could carry a target, so there is one at a time.
class AttachedLoaders {
public:
    /// @param resolution dots per inch of the pages that the call describes
    AttachedLoaders(ternkit::FilterInfoRequest& request, DocumentTarget& target, int resolution);
    /// Pages go through the ordinary loaders, or through the alternative ones when the request's target object says so.
    AttachedLoaders(ternkit::FilterLoadRequest& request, DocumentTarget& target);
    ~AttachedLoaders();
    AttachedLoaders(const AttachedLoaders&) = delete;
    AttachedLoaders& operator=(const AttachedLoaders&) = delete;
};

}  // namespace ternview
