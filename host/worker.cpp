#include "worker.h"

#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <new>
#include <string_view>

#include <ternkit/formats.h>

#include "browser/browser.h"
#include "cache_slot.h"
#include "confinement.h"
#include "descriptor.h"
#include "explanation.h"
#include "filter_module.h"
#include "html_engine.h"
#include "json_output.h"
#include "loaders.h"
#include "loaders/html_vector.h"
#include "loaders/installed_fonts.h"
#include "office/office.h"
#include "page_output.h"
#include "repair/helping_hands.h"

namespace ternview {
namespace {

constexpr std::uint32_t kLoadModeMemoryOnly = 3;

// ---- targets of the commands

/// Takes the document's bytes for counting only.
class SizeOnly final : public DocumentTarget {
    void use(const HandedDocument&) override {}
};

/// Lays the document out to count its pages.
class PageCount final : public DocumentTarget {
public:
    explicit PageCount(const PageSetup& setup) : paper_(setup) {}

private:
    void use(const HandedDocument& document) override {
        const auto laidOut = layOut(document, paper_);
        origin = laidOut->origin;
        pages = static_cast<std::uint32_t>(laidOut->pageCount());
        paper = laidOut->paperSize(0);
    }

    PageSetup paper_;
};

/// Sends the document as it is.
class DocumentCopy final : public DocumentTarget {
public:
    explicit DocumentCopy(FrameWriter& out) : out_(out) {}

private:
    void use(const HandedDocument& document) override {
        if (!document.file) {
            out_.begin(FrameKind::kDocument);
            out_.data(document.bytes);
            out_.end();
            return;
        }
        for (const TempFile& file : tempFiles) {
            sendFile(document.file->parent_path() / file.name, file.name);
        }
    }

    void sendFile(const std::filesystem::path& path, const std::string& name) {
        out_.begin(FrameKind::kTempFile, name);
        std::ifstream stream(path, std::ios::binary);
        std::string chunk(std::size_t{1} << 16, '\0');
        do {
            stream.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
            out_.data(std::string_view(chunk).substr(0, static_cast<std::size_t>(stream.gcount())));
        } while (stream);
        out_.end();
    }

    FrameWriter& out_;
};

/// Lays the document out and sends every wanted page.
class RenderedPages final : public DocumentTarget {
public:
    RenderedPages(const Job& job, FrameWriter& out) : job_(job), out_(out) {}

private:
    void use(const HandedDocument& document) override {
        const auto laidOut = layOut(document, job_.paper);
        origin = laidOut->origin;
        pages = static_cast<std::uint32_t>(laidOut->pageCount());
        (job_.pageFormat == PageFormat::kPdf ? writePdf : writePngPages)(*laidOut, job_, out_);
    }

    const Job& job_;
    FrameWriter& out_;
};

/// Sends the first page in small. Only what is laid out in this process is quick enough for that.
class Thumbnail final : public DocumentTarget {
public:
    Thumbnail(const Job& job, FrameWriter& out) : job_(job), out_(out) {}

private:
    void use(const HandedDocument& document) override {
        if (document.format == ternkit::kFormatRtf) {
            throw LoadError("its text is RTF, which needs an office suite, and that takes too long for a small picture");
        }
        const auto laidOut = layOut(document, job_.paper);
        writeThumbnail(*laidOut, job_.thumbnailSize, out_);
    }

    const Job& job_;
    FrameWriter& out_;
};

// ---- calls of the filter

void takeOver(JobResult& result, const DocumentTarget& target) {
    result.documentFormat = target.format;
    result.size = target.size;
    result.tempFiles = target.tempFiles;
    result.pages = target.pages;
    result.origin = target.origin;
    result.failure = target.failure;
    result.detail = target.detail;
}

/// Calls fltInfo and takes over what it says of the source and of the pages.
void callInfo(const FilterModule& module, const MailFile& file, const Job& job, CacheSlot& slot, DocumentTarget& target,
              JobResult& result) {
    InfoCallRecords call(file, job);
    call.request.cacheSlot = slot.record();
    const AttachedLoaders loaders(call.request, target, job.resolution);
    result.messageIndex = job.messageNumber - 1;
    result.status = module.info(call.request);
    result.loaderStatus = call.request.loaderStatus;
    takeOver(result, target);
    if (result.status < ternkit::kOk) {
        return;
    }
    result.messageIndex = call.request.messageNumber;
    result.sourceFormat = call.fileInfo.format;
    result.messageCount = call.fileInfo.messageCount;
    result.width = call.fileInfo.width;
    result.height = call.fileInfo.height;
    result.xResolution = call.fileInfo.xResolution;
    result.yResolution = call.fileInfo.yResolution;
}

/// @param slot of the file; an empty one has fltLoad read the message itself
void callLoad(const FilterModule& module, const MailFile& file, const Job& job, CacheSlot& slot, DocumentTarget& target,
              JobResult& result) {
    LoadCallRecords call(file, job);
    call.request.cacheSlot = slot.record();
    AlternativeTarget alternative;
    if (job.command == Command::kRender && job.pageFormat == PageFormat::kPdf) {
        call.request.targetObject = &alternative;
    }
    const AttachedLoaders loaders(call.request, target);
    result.status = module.load(call.request);
    result.resultStatus = call.request.resultStatus;
    takeOver(result, target);
}

/// Shows a message in small; one whose text is RTF by its plain text, if it has any.
void callLoadForThumbnail(const FilterModule& module, const MailFile& file, Job job, FrameWriter& out, JobResult& result) {
    CacheSlot empty(module);  // the two documents are not the same
    Thumbnail target(job, out);
    callLoad(module, file, job, empty, target, result);
    if (result.documentFormat != ternkit::kFormatRtf) {
        return;
    }
    job.plainTextOnly = true;
    Thumbnail plainText(job, out);
    JobResult plainResult;
    callLoad(module, file, job, empty, plainText, plainResult);
    if (plainResult.status >= ternkit::kOk) {
        result = plainResult;
    }
}

std::unique_ptr<DocumentTarget> loadTarget(const Job& job, FrameWriter& out) {
    if (job.command == Command::kRender) {
        return std::make_unique<RenderedPages>(job, out);
    }
    if (job.deliverDocument) {
        return std::make_unique<DocumentCopy>(out);
    }
    return std::make_unique<SizeOnly>();
}

/// fltInfo reads the message, and it alone tells which one a number stands for: a store's last one answers for all behind it.
/// fltLoad then takes the message from the slot.
void loadThroughSlot(const FilterModule& module, const MailFile& file, const Job& job, CacheSlot& slot, FrameWriter& out,
                     JobResult& result) {
    SizeOnly described;
    callInfo(module, file, job, slot, described, result);
    if (result.status == ternkit::kOk) {
        const std::unique_ptr<DocumentTarget> target = loadTarget(job, out);
        callLoad(module, file, job, slot, *target, result);
    }
}

/// One attempt at a message, by the filter alone.
JobResult callFilter(const FilterModule& module, const MailFile& file, const Job& job, FrameWriter& out) {
    JobResult result;
    CacheSlot slot(module);
    if (job.command == Command::kInfo) {
        PageCount target(job.paper);
        callInfo(module, file, job, slot, target, result);
    } else if (job.command == Command::kThumbnail) {
        callLoadForThumbnail(module, file, job, out, result);
    } else {
        loadThroughSlot(module, file, job, slot, out, result);
    }
    if (result.status < ternkit::kOk && result.failure == Failure::kNone) {
        result.failure = explainStatus(file, result.status);
    }
    return result;
}

/// In units of what pages have at the usual resolution.
double pageArea(const Job& job) {
    constexpr double kUsualResolution = 96;
    const bool isDrawn = job.command == Command::kRender && job.pageFormat == PageFormat::kPng;
    return isDrawn ? std::pow(job.resolution / kUsualResolution, 2) : 1;
}

void showMessage(const Job& job, FrameWriter& out, JobResult& result) {
    result.status = ternkit::kCannotOpen;  // what fltLoad says of such a file; fltInfo needs it open
    const MailFile file(job.file);
    limitProcessorTimeBySize(file.size(), pageArea(job));
    limitMemoryBySize(file.size());
    limitServicesBySize(file.size());
    result.status = 0;
    const FilterModule module;
    TbHostSetUiLanguage(job.uiLanguage);
    TbHostSetLoadMode(job.route == DocumentRoute::kMemory ? kLoadModeMemoryOnly : 0);
    const auto show = [&module, &out](const MailFile& mail, const Job& asked) { return callFilter(module, mail, asked, out); };
    result = job.strict ? show(file, job) : showWithHelp(file, job, show);
}

}  // namespace

void runJob(const Job& job, FrameWriter& out) {
    JobResult result;
    useHtmlEngine(job.htmlEngine);
    try {
        showMessage(job, out, result);
    } catch (const JobError& error) {
        result.failure = error.failure();
        result.detail = error.what();
    } catch (const std::bad_alloc&) {
        result.failure = Failure::kOutOfMemory;
    }
    endVectorPictures();
    out.result(packResult(result));
}

void limitServicesBySize(std::uint64_t bytes) {
    constexpr std::uint64_t kMostExpansion = 8;  // of compressed RTF
    OfficeAccess office = usedOffice();
    ServiceAccess browser = usedBrowser();
    office.countedBytes = browser.countedBytes = kMostExpansion * bytes;
    useOffice(office);
    useBrowser(browser);
}

void workerMain(const WorkerTask& task, const WorkerEnvironment& environment) {
    closeAllBut({environment.descriptor, environment.officeGate, environment.browserGate});
    Confinement confinement{environment.privateDirectory, environment.parent, environment.readable, {}};
    if (environment.drawsText) {
        const auto fonts = fontPaths();
        confinement.readable.insert(confinement.readable.end(), fonts.begin(), fonts.end());
    }
    confine(confinement);
    limitProcessorTime(environment.timeLimit);
    useOffice({environment.officeGate, environment.timeLimit});
    useBrowser({environment.browserGate, environment.timeLimit});
    try {
        FrameWriter out(environment.descriptor);
        setBuiltInEngine({environment.builtInEngineFailed, [&out] { out.send(FrameKind::kBuiltInLayout, {}); }});
        task(out);
    } catch (const std::exception&) {
        ::_exit(EXIT_FAILURE);
    }
    ::_exit(EXIT_SUCCESS);
}

}  // namespace ternview
