// What one command asks of one message, and what came of it: plain values, which cross between the program and its worker.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <ternkit/statuses.h>

#include "loaders/laid_out_document.h"

namespace ternview {

enum class Command { kInfo, kDocument, kRender, kThumbnail };
enum class PageFormat { kPng, kPdf };
enum class DocumentRoute { kMemory, kTemporaryFiles };
enum class HtmlEngine { kAuto, kEmbedded, kChromium };

/// Pages that a person asked for, such as "1,3-5,8-". Without ranges it is all pages.
class PageSelection {
public:
    /// @return nothing when the text is no list of pages and ranges
    static std::optional<PageSelection> parse(std::string_view text);

    bool contains(int page) const;

private:
    struct Range {
        int first;
        int last;
    };
    std::vector<Range> ranges_;
};

struct Job {
    Command command = Command::kInfo;
    std::string file;  // as the command line had it, in whatever bytes the file system uses
    std::int32_t messageNumber = 1;
    bool plainTextOnly = false;
    DocumentRoute route = DocumentRoute::kMemory;
    std::uint32_t uiLanguage = 0;  // LANGID, 0: the environment decides
    PageSetup paper;
    HtmlEngine htmlEngine = HtmlEngine::kAuto;
    PageFormat pageFormat = PageFormat::kPng;
    PageSelection pages;
    int resolution = 96;          // dots per inch
    int thumbnailSize = 0;        // pixels of the longer side
    bool strict = false;          // only what the filter itself gives
    bool completed = true;        // a message that the filter reads, but not as a whole, is completed for it
    bool deliverDocument = true;  // the bytes of the document are wanted, not only their description
};

/// Why a job came to nothing. `kStatus` leaves the explanation to the status of the export.
enum class Failure {
    kNone,
    kNoSuchFile,
    kDirectory,
    kUnreadableDirectory,
    kNoMailInDirectory,
    kNoRegularFile,
    kUnreadable,
    kEmptyFile,
    kTooShort,
    kNoMail,
    kBareLineFeeds,
    kNoContentType,
    kNoText,
    kEmptyStore,
    kStatus,
    kLoader,
    kNoSuchPage,
    kOutOfMemory,
    kTimeLimit,
    kCrash,
    kWorkerProtocol,
    kTemporaryFile,
    kOutput,
    kNeedsDirectory,
    kFilterMissing,
    kBatchMissing,
    kFontsMissing,
    kOfficeMissing,
    kOfficeProgramMissing,
    kBrowserMissing,
    kBrowserProgramMissing,
    kBrowserUnconfined,
    kLast = kBrowserUnconfined,
};

/// Ends a job; the detail completes the sentence that the failure stands for.
class JobError : public std::runtime_error {
public:
    explicit JobError(Failure failure, const std::string& detail = {}) : std::runtime_error(detail), failure_(failure) {}
    Failure failure() const { return failure_; }

private:
    Failure failure_;
};

/// What the host did for a message beyond asking the filter for it.
enum class Help {
    kMbox,       // it was taken out of a file that holds several
    kCorrected,  // the filter refused it as it came, and was given a corrected copy
    kNoText,     // likewise; the message has no text, and the copy says so
    kPlainText,  // the filter refused it as rich text
    kWholeText,  // the filter alone would leave out some of its text, or lose its charset, and was given a copy
    kLast = kWholeText,
};

struct TempFile {
    std::string name;  // without directory
    std::uint64_t size = 0;
};

struct JobResult {
    ternkit::Status status = 0;  // what the export returned; 0: none was reached, or it never returned
    ternkit::Status loaderStatus = 0;
    ternkit::Status resultStatus = ternkit::kOk;
    std::uint32_t sourceFormat = 0;
    std::uint32_t documentFormat = 0;
    std::uint32_t messageCount = 0;
    std::int32_t messageIndex = 0;
    std::uint64_t size = 0;
    std::uint32_t pages = 0;
    std::vector<TempFile> tempFiles;
    std::uint32_t width = 0;  // of a page, in pixels
    std::uint32_t height = 0;
    std::uint32_t xResolution = 0;
    std::uint32_t yResolution = 0;
    Failure failure = Failure::kNone;
    std::string detail;
    std::vector<Help> helps;
    LayoutOrigin origin;  // of the pages
};

}  // namespace ternview
