// The four functions that a filter of the toolkit exports. A host finds them at run time: it opens the library, looks up
// TERN_Load, and gets the other three through the TernModule record that TbModuleLoad fills.
#pragma once

#include <ternkit/formats.h>
#include <ternkit/records.h>
#include <ternkit/statuses.h>

namespace ternkit {

using FltInfo = Status (*)(FilterInfoRequest* request);
using FltLoad = Status (*)(FilterLoadRequest* request);
using FltFreeData = Status (*)(void* data, std::int32_t keep);

// What TbModuleLoad tells of a module. The library stays loaded for as long as the process lives.
struct TernModule {
    std::uint32_t structSize;  // in: sizeof(TernModule)
    char path[4096];           // out: file that the module was loaded from, UTF-8
    FltInfo fltInfo;
    FltLoad fltLoad;
    FltFreeData fltFreeData;
};

using TernLoad = Status (*)(TernModule* module);

inline constexpr char kTernLoadName[] = "TERN_Load";

}  // namespace ternkit

#if defined(TERNMAIL_BUILDING)
#define TERNKIT_EXPORT __attribute__((visibility("default")))
#else
#define TERNKIT_EXPORT
#endif

extern "C" {

/**
 * Describes the message that the request names. With a `cacheSlot` the message stays in the slot and is what later calls describe
 * and load, whatever they ask for; without one nothing is prepared beyond the call.
 *
 * @param request the request; `fileHandle` stays the caller's and is left at an unspecified position
 * @return 1, with the caller's `fileInfo` and `messageNumber` filled; -13 for a null request; -7 when the file has fewer than
 *         12 bytes; -9 when the slot holds a message of another kind of source; -1863 when a loader failed, with its status in
 *         `loaderStatus`; any other status of the message's reader
 */
TERNKIT_EXPORT ternkit::Status fltInfo(ternkit::FilterInfoRequest* request);

/**
 * Hands the document of a message to one of the request's loaders: of the message in `cacheSlot`, else of the one that the
 * request names.
 *
 * @param request the request; unless the slot holds a message, the file is opened by its name
 * @return the loader's status; -13 for a null request; -10 when the file cannot be opened; -7 when it has fewer than 12 bytes;
 *         any other status of the message's reader
 */
TERNKIT_EXPORT ternkit::Status fltLoad(ternkit::FilterLoadRequest* request);

/**
 * Frees what the filter left in a slot. The caller takes it out of the slot.
 *
 * @param data what the filter left, which is no block; anything else is left alone
 * @param keep 0 frees the data with its temporary files, any other value does nothing
 * @return 1; -13 when `data` is null
 */
TERNKIT_EXPORT ternkit::Status fltFreeData(void* data, std::int32_t keep);

/**
 * Hands the module to the kernel.
 *
 * @param module record to fill, owned by the caller
 * @return what TbModuleLoad gives: 1, or -13 for a null record or one of another size
 */
TERNKIT_EXPORT ternkit::Status TERN_Load(ternkit::TernModule* module);
}
