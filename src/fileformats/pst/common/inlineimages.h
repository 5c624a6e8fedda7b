// Pictures that travel as attachments. A reference to one in the HTML body is rewritten to a temporary file beside the document
// or to a data URI (RFC 2397). An attachment that the body does not name has no effect, and its bytes are not needed.
#pragma once

#include <cstdint>
#include <optional>

#include "common/filterdata.h"
#include "fileformats/pst/common/rewritabletext.h"
#include "internal/ternclasses_.h"

// Lives for one message's pass over its attachments. While the pass goes on, the rewritten text stands in `text`;
// FinishInlineImages puts it back into the body.
struct InlineImageContext {
    InlineImageContext(PstFilterData& filterData, OwnedBytes& html) : owner(filterData), body(html) {}

    PstFilterData& owner;                       // how documents travel; directory and list of the temporary files
    OwnedBytes& body;                           // the HTML text
    std::optional<RewritableText> text;         // the body up to its first NUL, from the first search on
    bool rewritten = false;                     // `text` is no longer what stands in the body
    std::uint64_t rewriteBudget = 0;            // work that is left for rewriting, see EmbedInlineImage
    RewritableText::Position matchOffset = {};  // first match of the current attachment
    const char* contentId = nullptr;            // the current attachment's id and name, as far as it has them
    const char* location = nullptr;
    TextBuilder cidText{kLineGrowBy};  // "cid:" and the id (RFC 2392)
    const char* needle = nullptr;      // what matched: cidText or location
};

/// Puts the rewritten text back into the body and forgets it; afterwards the body may change. @return 1 or -1
ternkit::Status FinishInlineImages(InlineImageContext& context);

/**
 * Looks for an attachment's first reference in the body: by its content id, else by its name.
 *
 * @param location NUL-terminated name, or null; stays the caller's and must outlive the embedding
 * @param contentId NUL-terminated id without brackets, or null; likewise
 * @return 1 with `needle` and `matchOffset` set; 2 when the body does not name it; -1 without memory
 */
ternkit::Status LocateInlineImage(InlineImageContext& context, const char* location, const char* contentId);

/**
 * Replaces every reference that LocateInlineImage has found the first of. The whole quoted value around it gives way.
 *
 * A replacement may itself name the next attachment, so that each of many attachments rewrites every reference of a long body
 * anew; and a body may name one large picture many times. All replacements of one message together may therefore take no more
 * than 64 MiB, 16 times the body and 4 times what stands for each picture, or memory counts as short.
 *
 * @param data the attachment's bytes
 * @param replacedCount receives the references replaced; may be null
 * @return 1; 0 when the data is too short for a data URI; -1, -13, -290, -1488, -1490, -1851 or a status of writing
 */
ternkit::Status EmbedInlineImage(InlineImageContext& context, const char* data, std::uint64_t size, std::uint64_t* replacedCount);

/**
 * Makes the path of an attachment's temporary file, and the directory when it is the first.
 *
 * @param path receives the NUL-terminated UTF-8 path
 * @param directory the record's directory, made and filled in when it is empty
 * @return 1; -1; -290 when the path does not fit; -1490; -1851
 */
ternkit::Status MakeInlineImagePath(char (&path)[kPathUnits], char16_t (&directory)[kPathUnits], const char* contentId,
                                    const char* location);

/// Fills `target` with the data URI of an attachment; its size counts no NUL. @return 1; 0 when it is too short; -1; -13
ternkit::Status BuildImageDataUri(OwnedBytes& target, const char* data, std::uint64_t size);
