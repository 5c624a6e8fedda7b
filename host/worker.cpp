#include "worker.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <new>
#include <string_view>

#include <ternkit/formats.h>

#include "filter_module.h"
#include "json_output.h"
#include "loaders.h"
#include "office/office.h"
#include "page_output.h"
#include "sanitized.h"

namespace ternview {
namespace {

constexpr rlim_t kMemoryLimit = rlim_t{2} << 30;
constexpr rlim_t kFileLimit = rlim_t{1} << 30;
constexpr std::uint32_t kLoadModeMemoryOnly = 3;
constexpr std::size_t kShortestMail = 12;

// ---- targets of the three commands

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
        pages = static_cast<std::uint32_t>(laidOut->pageCount());
        (job_.pageFormat == PageFormat::kPdf ? writePdf : writePngPages)(*laidOut, job_, out_);
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
    result.failure = target.failure;
    result.detail = target.detail;
}

/// Calls fltInfo and takes over what it says of the source and of the pages.
void callInfo(const FilterModule& module, const MailFile& file, const Job& job, DocumentTarget& target, JobResult& result) {
    InfoCallRecords call(file, job);
    const AttachedLoaders loaders(call.request, target, job.resolution);
    result.messageIndex = job.messageNumber - 1;
    result.status = module.info(call.request);
    result.loaderStatus = call.request.loaderStatus;
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

void callLoad(const FilterModule& module, const MailFile& file, const Job& job, DocumentTarget& target, JobResult& result) {
    LoadCallRecords call(file, job);
    AlternativeTarget alternative;
    if (job.command == Command::kRender && job.pageFormat == PageFormat::kPdf) {
        call.request.targetObject = &alternative;
    }
    const AttachedLoaders loaders(call.request, target);
    result.status = module.load(call.request);
    result.resultStatus = call.request.resultStatus;
    takeOver(result, target);
}

// ---- why there is nothing to show

bool hasField(std::string_view head, std::string_view name) {
    const auto sameLetter = [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    };
    for (std::size_t line = 0; line < head.size();) {
        const std::string_view rest = head.substr(line);
        if (rest.size() > name.size() && std::equal(name.begin(), name.end(), rest.begin(), sameLetter)) {
            return true;
        }
        const std::size_t lineEnd = head.find_first_of("\r\n", line);
        line = lineEnd == std::string_view::npos ? head.size() : lineEnd + 1;
    }
    return false;
}

/// Tells the reasons apart that share a status: it looks at the file's beginning, for the sentence only.
Failure explain(const MailFile& file, ternkit::Status status) {
    if (file.size() == 0) {
        return Failure::kEmptyFile;
    }
    if (file.size() < kShortestMail) {
        return Failure::kTooShort;
    }
    if (status == ternkit::kNoMemory) {
        return Failure::kStatus;
    }
    const std::string head = file.beginning(std::size_t{1} << 16);
    if (head.starts_with("!BDN")) {
        return status == ternkit::kBadArgument ? Failure::kEmptyStore : Failure::kStatus;
    }
    if (status != ternkit::kUnusable || head.starts_with("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1")) {
        return Failure::kStatus;
    }
    const auto has = [&head](std::string_view name) { return hasField(head, name); };
    if (!has("From:") && !has("Date:") && !has("Subject:") && !has("Received:") && !has("MIME-Version:") &&
        !has("Content-Type:")) {
        return Failure::kNoMail;
    }
    if (head.find("\r\n") == std::string::npos && head.find('\n') != std::string::npos) {
        return Failure::kBareLineFeeds;
    }
    return has("Content-Type:") ? Failure::kNoText : Failure::kNoContentType;
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

void callFilter(const Job& job, FrameWriter& out, JobResult& result) {
    result.status = ternkit::kCannotOpen;  // what fltLoad says of such a file; fltInfo needs it open
    const MailFile file(job.file);
    result.status = 0;
    const FilterModule module;
    TbHostSetUiLanguage(job.uiLanguage);
    TbHostSetLoadMode(job.route == DocumentRoute::kMemory ? kLoadModeMemoryOnly : 0);
    if (job.command == Command::kInfo) {
        PageCount target(job.paper);
        callInfo(module, file, job, target, result);
        takeOver(result, target);
    } else {
        // Which message a number stands for, fltInfo alone tells: a store's last one answers for all behind it.
        if (job.describe || job.messageNumber > 1) {
            SizeOnly target;
            callInfo(module, file, job, target, result);
        }
        const std::unique_ptr<DocumentTarget> target = loadTarget(job, out);
        callLoad(module, file, job, *target, result);
    }
    if (result.status < ternkit::kOk && result.failure == Failure::kNone) {
        result.failure = explain(file, result.status);
    }
}

// ---- the process

void setLimit(__rlimit_resource resource, rlim_t soft, rlim_t hard) {
    struct rlimit current {};
    if (::getrlimit(resource, &current) == 0) {
        const struct rlimit lowered { std::min(soft, current.rlim_max), std::min(hard, current.rlim_max) };
        ::setrlimit(resource, &lowered);
    }
}

void setLimits(std::chrono::seconds timeLimit) {
    setLimit(RLIMIT_CORE, 0, 0);
    setLimit(RLIMIT_FSIZE, kFileLimit, kFileLimit);
    // The program's own clock comes first; this one is for a worker whose program is held up.
    const auto seconds = static_cast<rlim_t>(timeLimit.count());
    setLimit(RLIMIT_CPU, seconds + 1, seconds + 2);
#ifndef TERNVIEW_SANITIZED
    setLimit(RLIMIT_AS, kMemoryLimit, kMemoryLimit);
#endif
}

/// What libraries grumble about a stranger's mail is of no use to a reader, and there is one sentence for each failure.
void silenceErrorOutput() {
#ifndef TERNVIEW_SANITIZED
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0) {
        ::dup2(null, STDERR_FILENO);
        ::close(null);
    }
#endif
}

}  // namespace

void runJob(const Job& job, FrameWriter& out) {
    JobResult result;
    try {
        callFilter(job, out, result);
    } catch (const JobError& error) {
        result.failure = error.failure();
        result.detail = error.what();
    } catch (const std::bad_alloc&) {
        result.failure = Failure::kOutOfMemory;
    }
    out.result(packResult(result));
}

void workerMain(const Job& job, const WorkerEnvironment& environment) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != environment.parent) {  // it ended before it could be watched
        ::_exit(EXIT_FAILURE);
    }
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit fails instead
    setLimits(environment.timeLimit);
    silenceErrorOutput();
    ::setenv("XDG_RUNTIME_DIR", environment.privateDirectory.c_str(), 1);
    useOffice({environment.officeGate, environment.timeLimit});
    try {
        FrameWriter out(environment.descriptor);
        runJob(job, out);
    } catch (const std::exception&) {
        ::_exit(EXIT_FAILURE);
    }
    ::_exit(EXIT_SUCCESS);
}

}  // namespace ternview
