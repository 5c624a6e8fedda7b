#include "document_conversion.h"

#include <fcntl.h>
#include <fontconfig/fontconfig.h>
#include <ternkit/formats.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <new>

#include "confinement.h"
#include "conversions.h"
#include "descriptor.h"
#include "html_engine.h"
#include "json_output.h"
#include "loaders.h"
#include "loaders/html_vector.h"
#include "loaders/installed_fonts.h"
#include "page_output.h"
#include "worker.h"

namespace ternview {
namespace {

/// What lies there was put there by the process that reads the mail, which a mail may have taken over.
std::string readDocument(const std::filesystem::path& path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    std::string bytes;
    std::array<char, 65536> chunk;
    ssize_t got = file.get() < 0 ? -1 : 0;
    do {
        got = file.get() < 0 ? -1 : ::read(file.get(), chunk.data(), chunk.size());
        bytes.append(chunk.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
    } while (got > 0 || (got < 0 && errno == EINTR));
    if (got < 0) {
        throw LoadError(std::string("its document cannot be read: ") + std::strerror(errno));
    }
    return bytes;
}

/// Does a step; what goes wrong becomes the result's failure.
void guarded(JobResult& result, const std::function<void()>& step) {
    try {
        step();
    } catch (const std::bad_alloc&) {
        result.failure = Failure::kOutOfMemory;
    } catch (const JobError& error) {
        result.failure = error.failure();
        result.detail = error.what();
    } catch (const LoadError& error) {
        result.failure = Failure::kLoader;
        result.detail = error.what();
    } catch (const std::exception& error) {
        result.failure = Failure::kLoader;
        result.detail = std::string("its pages cannot be made: ") + error.what();
    }
}

void sendConversion(const std::string& bytes, FrameWriter& out) {
    out.begin(FrameKind::kConversion);
    out.data(bytes);
    out.end();
}

void writePages(const ConversionTask& task, const HandedDocument& document, JobResult& result, FrameWriter& out) {
    useHtmlEngine(task.htmlEngine);
    const auto laidOut = layOut(document, task.paper);
    result.pages = static_cast<std::uint32_t>(laidOut->pageCount());
    Job job;
    job.resolution = task.resolution;
    (task.format == ExportFormat::kPdf ? writePdf : writePngPages)(*laidOut, job, out);
    if (task.thumbnail) {
        JobResult ignored;
        guarded(ignored, [&laidOut, &out] { writeThumbnail(*laidOut, out); });
    }
}

void writeConversion(const ConversionTask& task, const HandedDocument& document, FrameWriter& out) {
    sendConversion(task.format == ExportFormat::kHtml ? safeHtmlPage(document, task.title) : plainText(document), out);
    if (task.thumbnail) {
        JobResult ignored;
        guarded(ignored, [&] {
            useHtmlEngine(HtmlEngine::kEmbedded);  // quick enough
            writeThumbnail(*layOut(document, task.paper), out);
        });
    }
}

}  // namespace

void convertDocument(const ConversionTask& task, FrameWriter& out) {
    JobResult result;
    guarded(result, [&] {
        const std::string bytes = readDocument(task.document);
        const std::uint64_t size = std::min<std::uint64_t>(bytes.size(), task.fileSize);
        limitProcessorTimeBySize(size, task.format == ExportFormat::kPng ? std::pow(task.resolution / 96.0, 2) : 1);
        limitMemoryBySize(size);
        limitServicesBySize(task.fileSize);
        const bool isHtml = task.documentFormat == ternkit::kFormatHtml;
        const HandedDocument document{task.documentFormat, bytes, isHtml ? std::optional(task.document) : std::nullopt};
        if (task.format == ExportFormat::kPdf || task.format == ExportFormat::kPng) {
            writePages(task, document, result, out);
        } else {
            writeConversion(task, document, out);
        }
    });
    endVectorPictures();
    out.result(packResult(result));
}

void prepareConversions(ExportFormat format) {
    // Pango would begin threads of its own, which no fork takes along; fontconfig does not.
    FcInit();
    if (format == ExportFormat::kPdf || format == ExportFormat::kPng) {
        requireFonts();
    }
}

}  // namespace ternview
