// The records that a host and the filter exchange. They are packed byte by byte: the offsets are the interface, and pointers
// may stand on odd boundaries, so members are read and written through the struct only and never by reference or pointer.
#pragma once

#include <cstddef>
#include <cstdint>

#include <ternkit/statuses.h>

namespace ternkit {

struct LoadCacheSlot;

// Handle of an open file, as TbFileOpen gives it.
using FileHandle = std::intptr_t;
inline constexpr FileHandle kInvalidHandle = -1;

// An object of the host that says what kind of target a load draws into. The first four virtual functions are the interface;
// the destructor is deliberately not virtual, so that the kind stays in the fourth slot.
class TargetObject {
public:
    virtual std::int32_t addReference() = 0;
    virtual std::int32_t releaseReference() = 0;
    virtual std::int32_t version() = 0;
    virtual std::int32_t kind() = 0;

protected:
    ~TargetObject() = default;
};

inline constexpr std::int32_t kTargetKindAlternative = 10;  // selects the alternative loaders

#pragma pack(push, 1)

struct HostFileInfo {
    std::uint32_t structSize;
    std::uint32_t format;
    std::uint8_t unused8[1024];
    std::uint32_t width;   // pixels
    std::uint32_t height;  // pixels
    std::uint32_t bitsPerPixel;
    std::uint8_t unused1044[8];
    std::uint8_t pageValue[8];  // the loader's own, given back unchanged
    std::uint8_t unused1060[44];
    std::uint32_t pageFlag;
    std::int32_t pageNumber;  // 1-based
    std::uint32_t totalPages;
    std::uint32_t xResolution;  // dots per inch
    std::uint32_t yResolution;  // dots per inch
    std::uint32_t loadFlags;
    std::uint8_t unused1128[1060];
    std::uint32_t documentFlag;
    double documentWidth;
    double documentHeight;
    std::uint32_t documentUnit;
    std::uint8_t unused2212[68];
    std::uint32_t messageCount;  // written for stores only
    std::uint8_t unused2284[8];
    void* loaderData;  // out of a host loader: data that it wants kept
    std::uint64_t loaderDataSize;
    std::uint32_t loaderDataTag;
    std::uint8_t unused2312[4];
};

struct HostLoadOptions {
    std::uint32_t structSize;
    std::uint8_t unused4[16];
    std::int32_t pageNumber;  // 1-based page of the document
    std::uint8_t unused24[32];
    std::uint32_t flags;
    void* filterData;
    std::uint64_t filterDataSize;
    std::uint32_t filterDataTag;
    std::uint8_t unused80[4];
};

inline constexpr std::uint32_t kHostFileInfoSize = 2316;
inline constexpr std::uint32_t kHostLoadOptionsSize = 84;
inline constexpr std::uint32_t kInfoLoadFlags = 4096;           // `loadFlags` of the record that fltInfo hands to a loader
inline constexpr std::uint32_t kLoadFlagClearedOnLoad = 16384;  // `loadFlags` bit that fltLoad clears
inline constexpr std::uint32_t kLoaderDataGiven = 4;            // `flags` bit of HostLoadOptions: its `filterData` is valid
inline constexpr std::uint32_t kDocumentBitsPerPixel = 24;

// What the loaders are called with beside the records. The meaning of the constants lies in the host.
inline constexpr std::uint32_t kInfoWithoutCache = 1;
inline constexpr std::uint32_t kInfoWithCache = 3;
inline constexpr std::uint32_t kBitmapRecordSize = 284;
inline constexpr std::uint32_t kLoadArgumentOne = 1;
inline constexpr std::uint32_t kLoadArgumentThirtyTwo = 32;

using LoadInfoFromFile = Status (*)(const char16_t* path, HostFileInfo* info, std::uint32_t infoSize, std::uint32_t flags,
                                    HostLoadOptions* options);
using LoadInfoFromMemory = Status (*)(const void* document, HostFileInfo* info, std::uint32_t infoSize,
                                      std::uint64_t documentSize, std::uint32_t flags, HostLoadOptions* options);
using LoadFromFile = Status (*)(const char16_t* path, void* bitmap, std::uint32_t bitmapSize, std::uint32_t bitsPerPixel,
                                std::uint32_t one, std::uint32_t thirtyTwo, void* callback, void* userData,
                                HostLoadOptions* options, HostFileInfo* info);
using LoadFromMemory = Status (*)(const void* document, void* bitmap, std::uint32_t bitmapSize, std::uint32_t bitsPerPixel,
                                  std::uint32_t one, std::uint32_t thirtyTwo, void* callback, void* userData,
                                  std::uint64_t documentSize, HostLoadOptions* options, HostFileInfo* info);
using AlternativeLoadFromFile = Status (*)(const char16_t* path, void* target, HostLoadOptions* options, HostFileInfo* info);
using AlternativeLoadFromMemory = Status (*)(const void* document, void* target, std::uint64_t documentSize,
                                             HostLoadOptions* options, HostFileInfo* info);

struct FilterInfoRequest {
    const char16_t* fileName;  // NUL-terminated
    std::uint8_t unused8[4];
    FileHandle fileHandle;
    HostFileInfo* fileInfo;    // filled as the result
    LoadCacheSlot* cacheSlot;  // null when the host keeps nothing between calls; see load_cache.h
    std::uint8_t unused36[20];
    HostLoadOptions* options;
    std::uint8_t unused64[792];
    LoadInfoFromFile loadInfoFromFile;
    std::uint8_t unused864[24];
    LoadInfoFromMemory loadInfoFromMemory;
    std::uint8_t unused896[108];
    std::uint32_t requestedXResolution;  // 0, or the resolution that the caller wants
    std::uint32_t requestedYResolution;
    std::uint8_t unused1012[112];
    std::int32_t messageNumber;  // in: 1-based; out: the 0-based index used
    std::uint32_t plainTextOnly;
    std::uint8_t unused1132[236];
    Status loaderStatus;  // out: the status of a failed host function
};

struct FilterLoadRequest {
    const char16_t* fileName;  // NUL-terminated
    void* bitmap;
    std::uint8_t unused16[4];
    void* callback;
    void* userData;
    std::uint8_t unused36[36];
    HostFileInfo* fileInfo;
    LoadCacheSlot* cacheSlot;
    std::uint8_t unused88[1912];
    HostLoadOptions* options;
    std::uint8_t unused2008[20];
    Status resultStatus;  // in and out: 1 until something is to be reported beside a successful load
    std::uint8_t unused2032[312];
    std::int32_t messageNumber;  // 1-based
    std::uint32_t plainTextOnly;
    void* alternativeTarget;
    TargetObject* targetObject;  // may be null
    std::uint8_t unused2368[8];
    LoadFromFile loadFromFile;
    LoadFromMemory loadFromMemory;
    std::uint8_t unused2392[228];
    AlternativeLoadFromFile alternativeLoadFromFile;
    AlternativeLoadFromMemory alternativeLoadFromMemory;
};

#pragma pack(pop)

static_assert(sizeof(HostFileInfo) == kHostFileInfoSize);
static_assert(offsetof(HostFileInfo, structSize) == 0);
static_assert(offsetof(HostFileInfo, format) == 4);
static_assert(offsetof(HostFileInfo, width) == 1032);
static_assert(offsetof(HostFileInfo, height) == 1036);
static_assert(offsetof(HostFileInfo, bitsPerPixel) == 1040);
static_assert(offsetof(HostFileInfo, pageValue) == 1052);
static_assert(offsetof(HostFileInfo, pageFlag) == 1104);
static_assert(offsetof(HostFileInfo, pageNumber) == 1108);
static_assert(offsetof(HostFileInfo, totalPages) == 1112);
static_assert(offsetof(HostFileInfo, xResolution) == 1116);
static_assert(offsetof(HostFileInfo, yResolution) == 1120);
static_assert(offsetof(HostFileInfo, loadFlags) == 1124);
static_assert(offsetof(HostFileInfo, documentFlag) == 2188);
static_assert(offsetof(HostFileInfo, documentWidth) == 2192);
static_assert(offsetof(HostFileInfo, documentHeight) == 2200);
static_assert(offsetof(HostFileInfo, documentUnit) == 2208);
static_assert(offsetof(HostFileInfo, messageCount) == 2280);
static_assert(offsetof(HostFileInfo, loaderData) == 2292);
static_assert(offsetof(HostFileInfo, loaderDataSize) == 2300);
static_assert(offsetof(HostFileInfo, loaderDataTag) == 2308);

static_assert(sizeof(HostLoadOptions) == kHostLoadOptionsSize);
static_assert(offsetof(HostLoadOptions, structSize) == 0);
static_assert(offsetof(HostLoadOptions, pageNumber) == 20);
static_assert(offsetof(HostLoadOptions, flags) == 56);
static_assert(offsetof(HostLoadOptions, filterData) == 60);
static_assert(offsetof(HostLoadOptions, filterDataSize) == 68);
static_assert(offsetof(HostLoadOptions, filterDataTag) == 76);

static_assert(offsetof(FilterInfoRequest, fileName) == 0);
static_assert(offsetof(FilterInfoRequest, fileHandle) == 12);
static_assert(offsetof(FilterInfoRequest, fileInfo) == 20);
static_assert(offsetof(FilterInfoRequest, cacheSlot) == 28);
static_assert(offsetof(FilterInfoRequest, options) == 56);
static_assert(offsetof(FilterInfoRequest, loadInfoFromFile) == 856);
static_assert(offsetof(FilterInfoRequest, loadInfoFromMemory) == 888);
static_assert(offsetof(FilterInfoRequest, requestedXResolution) == 1004);
static_assert(offsetof(FilterInfoRequest, requestedYResolution) == 1008);
static_assert(offsetof(FilterInfoRequest, messageNumber) == 1124);
static_assert(offsetof(FilterInfoRequest, plainTextOnly) == 1128);
static_assert(offsetof(FilterInfoRequest, loaderStatus) == 1368);

static_assert(offsetof(FilterLoadRequest, fileName) == 0);
static_assert(offsetof(FilterLoadRequest, bitmap) == 8);
static_assert(offsetof(FilterLoadRequest, callback) == 20);
static_assert(offsetof(FilterLoadRequest, userData) == 28);
static_assert(offsetof(FilterLoadRequest, fileInfo) == 72);
static_assert(offsetof(FilterLoadRequest, cacheSlot) == 80);
static_assert(offsetof(FilterLoadRequest, options) == 2000);
static_assert(offsetof(FilterLoadRequest, resultStatus) == 2028);
static_assert(offsetof(FilterLoadRequest, messageNumber) == 2344);
static_assert(offsetof(FilterLoadRequest, plainTextOnly) == 2348);
static_assert(offsetof(FilterLoadRequest, alternativeTarget) == 2352);
static_assert(offsetof(FilterLoadRequest, targetObject) == 2360);
static_assert(offsetof(FilterLoadRequest, loadFromFile) == 2376);
static_assert(offsetof(FilterLoadRequest, loadFromMemory) == 2384);
static_assert(offsetof(FilterLoadRequest, alternativeLoadFromFile) == 2620);
static_assert(offsetof(FilterLoadRequest, alternativeLoadFromMemory) == 2628);

}  // namespace ternkit
