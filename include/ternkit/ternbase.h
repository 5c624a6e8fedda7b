// The part of the kernel that a host uses: file handles, the settings that the kernel answers from, and module loading.
// Everything here is process-wide; a host sets it before it calls a filter.
#pragma once

#include <cstddef>
#include <cstdint>

#include <ternkit/filter.h>
#include <ternkit/records.h>

#define TERNBASE_API __attribute__((visibility("default")))

/**
 * Opens a file for reading.
 *
 * @param path NUL-terminated UTF-16 path, taken as it stands
 * @param reserved 0
 * @param mode 256
 * @return a handle for TbFileSeek and TbFileRead, to be closed with TbFileClose; -1 when there is no regular file to read
 */
TERNBASE_API ternkit::FileHandle TbFileOpen(const char16_t* path, std::uint32_t reserved, std::uint32_t mode);

/** Closes what TbFileOpen gave; -1 is ignored. */
TERNBASE_API void TbFileClose(ternkit::FileHandle handle);

/** Mode that TbLoadModeQuery answers: 3 forbids documents to travel through temporary files. Default 0. */
TERNBASE_API void TbHostSetLoadMode(std::uint32_t mode);

/** Language of header labels, a Windows LANGID; 0 goes back to the environment. */
TERNBASE_API void TbHostSetUiLanguage(std::uint32_t languageId);

/** Largest block in bytes that the memory operations give. Default 512 MiB. */
TERNBASE_API void TbHostSetBlockLimit(std::uint64_t bytes);

/** Bytes that all large buffers may hold together before TbMemQuota refuses; 0 (the default) means no limit. */
TERNBASE_API void TbHostSetMemoryQuota(std::uint64_t bytes);

/** Frees a MultiLoadBlock that a filter made in a host's slot; null is ignored. What its entries hold goes first. */
TERNBASE_API void TbHostFreeBlock(void* block);

/**
 * Gives the native path of a name that the filter made: a backslash becomes a separator, the text UTF-8.
 *
 * @param path NUL-terminated UTF-16 path
 * @param out buffer for the NUL-terminated result, owned by the caller
 * @param capacity its size in bytes
 * @return length of the result in bytes without its NUL, or 0 when it does not fit
 */
TERNBASE_API std::size_t TbHostNativePath(const char16_t* path, char* out, std::size_t capacity);

/**
 * Target of a filter's export TERN_Load: finds the library that the address belongs to, keeps it loaded, and looks up its
 * exports.
 *
 * @param moduleAddress an address inside the module's code
 * @param module record to fill, owned by the caller
 * @return 1; -13 for a missing argument, a record of another size, or a module that lacks an export
 */
TERNBASE_API ternkit::Status TbModuleLoad(const void* moduleAddress, ternkit::TernModule* module);
