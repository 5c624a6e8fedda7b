// The kernel as the module sees it: memory, tracking, files, temporary names, UTF-8, language, fonts, load scope. This and
// windows.h are the only way from the module to the system.
//
// Every memory and tracking call carries the line and the name of its source file, which the tracking build reports for what
// is left over. A source file states its name once with TB_SOURCE and passes TB_HERE.
#pragma once

#include <cstddef>
#include <cstdint>

#include <ternkit/ternbase.h>

#define TB_SOURCE(name)                                          \
    namespace {                                                  \
    [[maybe_unused]] constexpr const char16_t* kTbSource = name; \
    }
#define TB_HERE __LINE__, kTbSource

// Memory. A block of size 0 is a valid block; a block over the host's limit is refused as if memory were short.

/** Gives an uninitialised block of count times size bytes, or null. The caller frees it with TbMemFree. */
TERNBASE_API void* TbMemAlloc(std::uint64_t count, std::uint64_t size, int line, const char16_t* file);
/** As TbMemAlloc, with all bytes zero. */
TERNBASE_API void* TbMemAllocZero(std::uint64_t count, std::uint64_t size, int line, const char16_t* file);
/** Gives a block of `size` bytes with the content of `block` (which may be null), or null with the old block still valid. */
TERNBASE_API void* TbMemRealloc(void* block, std::uint64_t size, int line, const char16_t* file);
/** Frees what the three above gave; null is ignored. */
TERNBASE_API void TbMemFree(void* block, int line, const char16_t* file);

/** Largest block in bytes that the three above give. */
TERNBASE_API std::uint64_t TbMemBlockLimit();

inline constexpr int kTbTrackObject = 4;
inline constexpr int kTbTrackArray = 5;

/** Records an object made with new. */
TERNBASE_API void TbTrackNew(int kind, const void* object, int line, const char16_t* file);
/** The matching record, made before the object dies. */
TERNBASE_API void TbTrackDelete(int kind, const void* object, int line, const char16_t* file);

inline constexpr int kTbQuotaReserve = 2;
inline constexpr int kTbQuotaRelease = 3;
inline constexpr int kTbQuotaStatus = 5;

/**
 * Process-wide accounting of large buffers.
 *
 * @param operation kTbQuotaReserve, kTbQuotaRelease, or kTbQuotaStatus
 * @param bytes size in bytes
 * @param reserved 0
 * @return 1, a refusal's status, or for kTbQuotaStatus the status to report for a failed allocation of that size
 */
TERNBASE_API ternkit::Status TbMemQuota(int operation, std::uint64_t bytes, int reserved);

// Files. Paths are NUL-terminated UTF-16. TbFileOpen and TbFileClose stand in <ternkit/ternbase.h>.

inline constexpr int kTbSeekStart = 0;
inline constexpr int kTbSeekCurrent = 1;
inline constexpr int kTbSeekEnd = 2;

/** Reads at the current position; gives the bytes read, 0 at the end of the file or on an error. */
TERNBASE_API std::uint32_t TbFileRead(ternkit::FileHandle handle, void* buffer, std::uint32_t count);
TERNBASE_API std::uint64_t TbFileRead64(ternkit::FileHandle handle, void* buffer, std::uint64_t count);
/** Moves the position; gives the new position, or -1 for an unknown origin or a position below 0. */
TERNBASE_API std::int64_t TbFileSeek(ternkit::FileHandle handle, std::int64_t offset, int origin);
/**
 * Creates or truncates a file for writing, mode 0600. Only inside the private temporary directory: a path elsewhere, one with a
 * ".." component, or one that goes through a link is refused, so a name taken from a message cannot reach outside.
 *
 * @return a handle for TbFileWrite, to be closed with TbFileCreatedClose; -1 on failure
 */
TERNBASE_API ternkit::FileHandle TbFileCreate(const char16_t* path, std::uint32_t reserved);
/** Writes at the current position; gives the bytes written. */
TERNBASE_API std::uint64_t TbFileWrite(ternkit::FileHandle handle, const void* data, std::uint64_t size, std::uint32_t reserved);
TERNBASE_API void TbFileCreatedClose(ternkit::FileHandle handle, std::uint32_t reserved);
/** Turns the module's statuses -1490 (cannot create) and -5 (short write) into the one to report. */
TERNBASE_API ternkit::Status TbMapError(ternkit::Status status);
/**
 * Gives a unique, unguessable name and reserves it with an empty file.
 *
 * @param directory directory of the private temporary directory, with a trailing separator, or null for that directory itself
 * @param out receives the path
 * @param capacity units in `out`, its NUL included
 * @param unique 1
 * @param prefix first characters of the name
 * @param extension extension without its dot, or null
 * @return 1; -1490 when the name cannot be reserved; -290 when it does not fit
 */
TERNBASE_API ternkit::Status TbTempName(const char16_t* directory, char16_t* out, std::uint32_t capacity, std::uint32_t unique,
                                        const char16_t* prefix, const char16_t* extension);
/** Deletes a file that the module made; a path outside the private temporary directory is left alone. */
TERNBASE_API void TbFileDelete(const char16_t* path);
/** The same for a path held as NUL-terminated UTF-8. */
TERNBASE_API void TbFileDeleteNarrow(const char* path);

// Text.

/** UTF-16 to UTF-8; an unpaired surrogate becomes U+FFFD. Gives the bytes written, 0 when they do not fit or there are none. */
TERNBASE_API std::uint64_t TbUtf8FromWide(const char16_t* text, std::uint64_t units, char* out, std::uint64_t capacity);
/** UTF-8 to UTF-16. Gives the units written, 0 when they do not fit, there are none, or the bytes are not UTF-8. */
TERNBASE_API std::uint64_t TbWideFromUtf8(const char* text, std::uint64_t bytes, char16_t* out, std::uint64_t capacity);
/** Gives the position behind the character at `position`, of which `units` are left. */
TERNBASE_API const char16_t* TbNextChar(const char16_t* position, std::uint64_t units);
/** Windows LANGID of the language in which header labels are written. */
TERNBASE_API std::uint32_t TbUiLanguage();

// How documents travel.

inline constexpr std::uint32_t kTbLoadModeMemoryOnly = 3;
inline constexpr std::uint32_t kTbLoadScopeSize = 120;

/** The host's mode; kTbLoadModeMemoryOnly forbids documents to travel through temporary files. */
TERNBASE_API std::uint32_t TbLoadModeQuery();
TERNBASE_API ternkit::Status TbLoadScopePrepare(void* block, std::uint32_t size, std::uint32_t kind, std::uint32_t reserved);
TERNBASE_API void TbLoadScopeSwitch(void* block, std::uint32_t reserved1, std::uint32_t reserved2);
