#include "export_harness.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <ternkit/filter.h>
#include <ternkit/ternbase.h>

namespace {

constexpr std::uint32_t kOpenForReading = 256;
constexpr std::uint32_t kMemoryOnly = 3;

/// Reads every byte of a document, so that the sanitizer sees one that is not there.
std::uint64_t touch(const void* document, std::uint64_t size) {
    std::uint64_t sum = 0;
    for (std::uint64_t at = 0; at < size; ++at) {
        sum += static_cast<const std::uint8_t*>(document)[at];
    }
    return sum;
}

void fill(ternkit::HostFileInfo* info) {
    info->totalPages = 1;
    info->width = 794;
    info->height = 1123;
    info->xResolution = 96;
    info->yResolution = 96;
}

ternkit::Status takeInfoFromFile(const char16_t* /*path*/, ternkit::HostFileInfo* info, std::uint32_t /*infoSize*/,
                                 std::uint32_t /*flags*/, ternkit::HostLoadOptions* /*options*/) {
    fill(info);
    return ternkit::kOk;
}

ternkit::Status takeInfoFromMemory(const void* document, ternkit::HostFileInfo* info, std::uint32_t /*infoSize*/,
                                   std::uint64_t size, std::uint32_t /*flags*/, ternkit::HostLoadOptions* /*options*/) {
    fill(info);
    return touch(document, size) == 1 ? -1 : ternkit::kOk;
}

ternkit::Status takeFile(const char16_t* path, void* /*bitmap*/, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t,
                         void* /*callback*/, void* /*userData*/, ternkit::HostLoadOptions* /*options*/,
                         ternkit::HostFileInfo* /*info*/) {
    char native[4096];
    if (TbHostNativePath(path, native, sizeof(native)) == 0 || access(native, R_OK) != 0) {
        std::abort();
    }
    return ternkit::kOk;
}

ternkit::Status takeMemory(const void* document, void* /*bitmap*/, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t,
                           void* /*callback*/, void* /*userData*/, std::uint64_t size, ternkit::HostLoadOptions* /*options*/,
                           ternkit::HostFileInfo* /*info*/) {
    return touch(document, size) == 1 ? -1 : ternkit::kOk;
}

const std::string& temporaryDirectory() {
    static const std::string directory = [] {
        char name[] = "/tmp/ternmail-fuzz-XXXXXX";
        if (mkdtemp(name) == nullptr || setenv("XDG_RUNTIME_DIR", name, 1) != 0) {
            std::abort();
        }
        return std::string(name);
    }();
    return directory;
}

void callBoth(const std::u16string& path, std::uint32_t mode, const fuzz::Request& request) {
    TbHostSetLoadMode(mode);
    ternkit::HostLoadOptions options{};
    ternkit::HostFileInfo fileInfo{};
    ternkit::FilterInfoRequest info{};
    info.fileName = path.c_str();
    info.fileHandle = TbFileOpen(path.c_str(), 0, kOpenForReading);
    info.fileInfo = &fileInfo;
    info.options = &options;
    info.loadInfoFromFile = takeInfoFromFile;
    info.loadInfoFromMemory = takeInfoFromMemory;
    info.messageNumber = request.messageNumber;
    info.plainTextOnly = request.plainTextOnly;
    const ternkit::Status infoStatus = fltInfo(&info);
    TbFileClose(info.fileHandle);

    ternkit::FilterLoadRequest load{};
    load.fileName = path.c_str();
    load.fileInfo = &fileInfo;
    load.options = &options;
    load.resultStatus = ternkit::kOk;
    load.messageNumber = request.messageNumber;
    load.plainTextOnly = request.plainTextOnly;
    load.loadFromFile = takeFile;
    load.loadFromMemory = takeMemory;
    if (fltLoad(&load) != infoStatus) {
        std::abort();  // both build the same document
    }
}

}  // namespace

namespace fuzz {

std::u16string fileOf(const std::uint8_t* data, std::size_t size) {
    static const int file = memfd_create("message", MFD_CLOEXEC);
    temporaryDirectory();
    if (ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size)) {
        std::abort();
    }
    const std::string narrow = "/proc/self/fd/" + std::to_string(file);
    return {narrow.begin(), narrow.end()};
}

void expectNothingLeft() {
    static unsigned run = 0;
    if (++run % 64 == 0) {
        for (const auto& entry : std::filesystem::directory_iterator(temporaryDirectory())) {
            if (!std::filesystem::is_empty(entry.path())) {
                std::fprintf(stderr, "left over in %s\n", entry.path().c_str());
                std::abort();
            }
        }
    }
}

void readThroughExports(const std::uint8_t* data, std::size_t size, const Request& request) {
    const std::u16string path = fileOf(data, size);
    callBoth(path, kMemoryOnly, request);
    callBoth(path, 0, request);
    expectNothingLeft();
}

}  // namespace fuzz
