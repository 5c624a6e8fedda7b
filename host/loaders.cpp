#include "loaders.h"

#include <ternkit/formats.h>
#include <ternkit/ternbase.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <fstream>
#include <new>

#include "html_engine.h"

namespace ternview {
namespace {

using ternkit::HostFileInfo;
using ternkit::HostLoadOptions;
using ternkit::Status;

// What the info functions work for: they get no argument of ours.
struct InfoCall {
    DocumentTarget* target = nullptr;
    int resolution = 96;
};
InfoCall currentInfo;

std::unique_ptr<LaidOutDocument> loadText(const HandedDocument& document, const PageSetup& paper) {
    return layOutText(document.bytes, paper);
}

std::unique_ptr<LaidOutDocument> loadRtf(const HandedDocument& document, const PageSetup& paper) {
    return layOutRtf(document.bytes, paper);
}

struct Loader {
    std::uint32_t format;
    std::unique_ptr<LaidOutDocument> (*layOut)(const HandedDocument&, const PageSetup&);
};

constexpr std::array kLoaders{
    Loader{ternkit::kFormatHtml, layOutWithChosenEngine},
    Loader{ternkit::kFormatRtf, loadRtf},
    Loader{ternkit::kFormatText, loadText},
};

/// Hands a document to a target; what goes wrong there must not pass through the filter as an exception.
Status deliver(DocumentTarget* target, const HandedDocument& document) {
    if (target == nullptr) {
        return ternkit::kNullPointer;
    }
    try {
        target->take(document);
        return ternkit::kOk;
    } catch (const std::bad_alloc&) {
        target->failure = Failure::kOutOfMemory;
        return ternkit::kNoMemory;
    } catch (const JobError& error) {
        target->failure = error.failure();
        target->detail = error.what();
    } catch (const LoadError& error) {
        target->failure = Failure::kLoader;
        target->detail = error.what();
    } catch (const std::exception& error) {
        target->failure = Failure::kLoader;
        target->detail = std::string("its pages cannot be made: ") + error.what();
    }
    return ternkit::kUnusable;
}

std::string readFile(const std::filesystem::path& path) {
    std::string bytes(std::filesystem::file_size(path), '\0');
    std::ifstream stream(path, std::ios::binary);
    stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<std::size_t>(stream.gcount()));
    return bytes;
}

Status deliverFile(DocumentTarget* target, std::uint32_t format, const char16_t* path) {
    std::array<char, PATH_MAX> native;
    if (path == nullptr || TbHostNativePath(path, native.data(), native.size()) == 0) {
        return ternkit::kCannotOpen;
    }
    const std::filesystem::path file(native.data());
    try {
        const std::string bytes = readFile(file);
        return deliver(target, {format, bytes, file});
    } catch (const std::bad_alloc&) {
        if (target != nullptr) {
            target->failure = Failure::kOutOfMemory;
        }
        return ternkit::kNoMemory;
    } catch (const std::exception&) {
        return ternkit::kCannotOpen;
    }
}

Status deliverMemory(DocumentTarget* target, std::uint32_t format, const void* document, std::uint64_t size) {
    if (document == nullptr && size != 0) {
        return ternkit::kNullPointer;
    }
    return deliver(target, {format, std::string_view(static_cast<const char*>(document), size), std::nullopt});
}

Status describe(Status status, HostFileInfo* info) {
    if (status == ternkit::kOk) {
        const PageGeometry page = pageGeometry(currentInfo.target->paper, currentInfo.resolution);
        info->width = page.width;
        info->height = page.height;
        info->bitsPerPixel = ternkit::kDocumentBitsPerPixel;
        info->xResolution = page.resolution;
        info->yResolution = page.resolution;
        info->totalPages = currentInfo.target->pages;
    }
    return status;
}

Status loadInfoFromFile(const char16_t* path, HostFileInfo* info, std::uint32_t, std::uint32_t, HostLoadOptions*) {
    return describe(deliverFile(currentInfo.target, info->format, path), info);
}

Status loadInfoFromMemory(const void* document, HostFileInfo* info, std::uint32_t, std::uint64_t documentSize, std::uint32_t,
                          HostLoadOptions*) {
    return describe(deliverMemory(currentInfo.target, info->format, document, documentSize), info);
}

Status loadFromFile(const char16_t* path, void* bitmap, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, void*, void*,
                    HostLoadOptions*, HostFileInfo* info) {
    return deliverFile(static_cast<DocumentTarget*>(bitmap), info->format, path);
}

Status loadFromMemory(const void* document, void* bitmap, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, void*,
                      void*, std::uint64_t documentSize, HostLoadOptions*, HostFileInfo* info) {
    return deliverMemory(static_cast<DocumentTarget*>(bitmap), info->format, document, documentSize);
}

Status alternativeLoadFromFile(const char16_t* path, void* target, HostLoadOptions*, HostFileInfo* info) {
    return deliverFile(static_cast<DocumentTarget*>(target), info->format, path);
}

Status alternativeLoadFromMemory(const void* document, void* target, std::uint64_t documentSize, HostLoadOptions*,
                                 HostFileInfo* info) {
    return deliverMemory(static_cast<DocumentTarget*>(target), info->format, document, documentSize);
}

/// The files with which an HTML document travelled, itself first.
std::vector<TempFile> listTempFiles(const std::filesystem::path& html) {
    std::vector<TempFile> files{{html.filename().string(), std::filesystem::file_size(html)}};
    for (const auto& entry : std::filesystem::directory_iterator(html.parent_path())) {
        if (entry.is_regular_file() && !entry.is_symlink() && entry.path().filename() != html.filename()) {
            files.push_back({entry.path().filename().string(), entry.file_size()});
        }
    }
    std::sort(files.begin() + 1, files.end(), [](const TempFile& a, const TempFile& b) { return a.name < b.name; });
    return files;
}

}  // namespace

void DocumentTarget::take(const HandedDocument& document) {
    format = document.format;
    size = document.bytes.size();
    tempFiles = document.file ? listTempFiles(*document.file) : std::vector<TempFile>();
    use(document);
}

PageGeometry pageGeometry(const PaperSize& paper, int resolution) {
    const double scale = resolution / 96.0;
    return {static_cast<std::uint32_t>(std::lround(paper.width * scale)),
            static_cast<std::uint32_t>(std::lround(paper.height * scale)), static_cast<std::uint32_t>(resolution)};
}

std::unique_ptr<LaidOutDocument> layOut(const HandedDocument& document, const PageSetup& paper) {
    for (const Loader& loader : kLoaders) {
        if (loader.format == document.format) {
            return loader.layOut(document, paper);
        }
    }
    throw LoadError("its text has the format " + std::to_string(document.format) + ", for which there is no loader");
}

AttachedLoaders::AttachedLoaders(ternkit::FilterInfoRequest& request, DocumentTarget& target, int resolution) {
    currentInfo = {&target, resolution};
    request.loadInfoFromFile = loadInfoFromFile;
    request.loadInfoFromMemory = loadInfoFromMemory;
}

AttachedLoaders::AttachedLoaders(ternkit::FilterLoadRequest& request, DocumentTarget& target) {
    request.bitmap = &target;
    request.alternativeTarget = &target;
    request.loadFromFile = loadFromFile;
    request.loadFromMemory = loadFromMemory;
    request.alternativeLoadFromFile = alternativeLoadFromFile;
    request.alternativeLoadFromMemory = alternativeLoadFromMemory;
}

AttachedLoaders::~AttachedLoaders() {
    currentInfo = {};
}

}  // namespace ternview
