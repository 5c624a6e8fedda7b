#include "export_harness.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <ternkit/filter.h>
#include <ternkit/load_cache.h>
#include <ternkit/ternbase.h>
#include "guarded_rtf.h"

namespace {

constexpr std::uint32_t kOpenForReading = 256;
constexpr std::uint32_t kMemoryOnly = 3;
constexpr std::uint64_t kLargestBlock = 16U << 20;  // a store makes records for as many messages as it says to have
constexpr std::uint32_t kFilterRecordTag = 1;
std::uint32_t keptByLoader = 0;  // its address stands for data of a loader

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

/// Reads every byte of a document, so that the sanitizer sees one that is not there.
void readDocument(const void* document, std::uint64_t size, const ternkit::HostFileInfo* info) {
    const std::string bytes(static_cast<const char*>(document), size);
    if (info->format == ternkit::kFormatRtf && bytes.starts_with("{\\rtf")) {
        fuzz::checkRtfGuard(bytes);
    }
}

void requireFile(const char16_t* path) {
    char native[4096];
    require(TbHostNativePath(path, native, sizeof(native)) != 0 && access(native, R_OK) == 0);
}

/// What the loaders of a document answer, and what they want kept for the next call.
void fill(ternkit::HostFileInfo* info, std::uint32_t flags) {
    info->totalPages = 1;
    info->width = 794;
    info->height = 1123;
    info->xResolution = 96;
    info->yResolution = 96;
    if (flags == ternkit::kInfoWithCache) {
        info->loaderData = &keptByLoader;
        info->loaderDataSize = sizeof(keptByLoader);
    }
}

ternkit::Status takeInfoFromFile(const char16_t* path, ternkit::HostFileInfo* info, std::uint32_t /*infoSize*/,
                                 std::uint32_t flags, ternkit::HostLoadOptions* /*options*/) {
    requireFile(path);
    fill(info, flags);
    return ternkit::kOk;
}

ternkit::Status takeInfoFromMemory(const void* document, ternkit::HostFileInfo* info, std::uint32_t /*infoSize*/,
                                   std::uint64_t size, std::uint32_t flags, ternkit::HostLoadOptions* /*options*/) {
    readDocument(document, size, info);
    fill(info, flags);
    return ternkit::kOk;
}

ternkit::Status takeFile(const char16_t* path, void* /*bitmap*/, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t,
                         void* /*callback*/, void* /*userData*/, ternkit::HostLoadOptions* /*options*/,
                         ternkit::HostFileInfo* /*info*/) {
    requireFile(path);
    return ternkit::kOk;
}

ternkit::Status takeMemory(const void* document, void* /*bitmap*/, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t,
                           void* /*callback*/, void* /*userData*/, std::uint64_t size, ternkit::HostLoadOptions* /*options*/,
                           ternkit::HostFileInfo* info) {
    readDocument(document, size, info);
    return ternkit::kOk;
}

ternkit::Status takeFileElsewhere(const char16_t* path, void* /*target*/, ternkit::HostLoadOptions* /*options*/,
                                  ternkit::HostFileInfo* /*info*/) {
    requireFile(path);
    return ternkit::kOk;
}

ternkit::Status takeMemoryElsewhere(const void* document, void* /*target*/, std::uint64_t size,
                                    ternkit::HostLoadOptions* /*options*/, ternkit::HostFileInfo* info) {
    readDocument(document, size, info);
    return ternkit::kOk;
}

class AlternativeTarget final : public ternkit::TargetObject {
public:
    std::int32_t addReference() override { return 1; }
    std::int32_t releaseReference() override { return 1; }
    std::int32_t version() override { return 1; }
    std::int32_t kind() override { return ternkit::kTargetKindAlternative; }
};

/// Frees what the filter left in a slot, beside what belongs to the loaders.
void giveBack(ternkit::LoadCacheSlot& slot) {
    if (slot.data == nullptr || slot.data == &keptByLoader) {
        return;
    }
    if (slot.dataTag != ternkit::kBlockDataTag) {
        require(fltFreeData(slot.data, 0) == ternkit::kOk);
        return;
    }
    auto* block = static_cast<ternkit::MultiLoadBlock*>(slot.data);
    void* record = ternkit::entriesOf(block)[ternkit::kFilterDataEntry].data;
    require(record == nullptr || fltFreeData(record, 0) == ternkit::kOk);
    TbHostFreeBlock(block);
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

/// @param slot keeps the message between the two calls; null for none
ternkit::Status callBoth(const std::u16string& path, ternkit::LoadCacheSlot* slot, const fuzz::Request& request) {
    ternkit::HostLoadOptions options{};
    ternkit::HostFileInfo fileInfo{};
    ternkit::FilterInfoRequest info{};
    info.fileName = path.c_str();
    info.fileHandle = TbFileOpen(path.c_str(), 0, kOpenForReading);
    info.fileInfo = &fileInfo;
    info.cacheSlot = slot;
    info.options = &options;
    info.loadInfoFromFile = takeInfoFromFile;
    info.loadInfoFromMemory = takeInfoFromMemory;
    info.messageNumber = request.messageNumber;
    info.plainTextOnly = request.plainTextOnly;
    const ternkit::Status infoStatus = fltInfo(&info);
    TbFileClose(info.fileHandle);

    AlternativeTarget target;
    ternkit::FilterLoadRequest load{};
    load.fileName = path.c_str();
    load.fileInfo = &fileInfo;
    load.cacheSlot = slot;
    load.options = &options;
    load.resultStatus = ternkit::kOk;
    load.messageNumber = request.messageNumber;
    load.plainTextOnly = request.plainTextOnly;
    load.loadFromFile = takeFile;
    load.loadFromMemory = takeMemory;
    load.targetObject = slot != nullptr ? &target : nullptr;
    load.alternativeLoadFromFile = takeFileElsewhere;
    load.alternativeLoadFromMemory = takeMemoryElsewhere;
    require(fltLoad(&load) == infoStatus);  // both build the same document
    return infoStatus;
}

}  // namespace

namespace fuzz {

std::u16string fileOf(const std::uint8_t* data, std::size_t size) {
    static const int file = memfd_create("message", MFD_CLOEXEC);
    temporaryDirectory();
    TbHostSetBlockLimit(kLargestBlock);
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

ternkit::Status readThroughExports(const std::uint8_t* data, std::size_t size, const Request& request) {
    const std::u16string path = fileOf(data, size);
    TbHostSetLoadMode(kMemoryOnly);
    const ternkit::Status status = callBoth(path, nullptr, request);
    TbHostSetLoadMode(0);
    ternkit::LoadCacheSlot slot{};
    slot.defaultTag = kFilterRecordTag;
    callBoth(path, &slot, request);  // fails alone where the name of a picture cannot be one of a file
    giveBack(slot);
    expectNothingLeft();
    return status;
}

}  // namespace fuzz
