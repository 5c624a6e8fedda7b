// The walk over the parts of an Internet message (RFC 2046). Containers are walked by recursion and only leaves leave a trace:
// the last text part stands as the body, and pictures that the body names are embedded into it.
#pragma once

#include "fileformats/pst/common/inlineimages.h"
#include "fileformats/pst/common/mimemessage.h"

/**
 * Finds the boundary that the header fields of an entity name.
 *
 * @param start first byte of the entity
 * @param delimiter receives CR, LF, two hyphens and the boundary, with a NUL that its size counts
 * @param childStart receives where the entity's own parts begin
 * @return 1; 2 when there is none; -814 for a missing range; -1 without memory
 */
ternkit::Status FindBoundary(const char* start, const char* end, OwnedBytes& delimiter, const char*& childStart);

/// Walks the parts of a whole message. @return 1 or 2; the status that ended the walk
ternkit::Status WalkMessageParts(MimeMessage& message, PstFilterData& filterData, const char* childStart,
                                 const OwnedBytes& delimiter);

/**
 * Walks the parts between the delimiters of one container.
 *
 * @param delimiter as FindBoundary makes it
 * @param depth containers around this one
 * @return 1; 2 when the last part was a picture that the body does not name; the status that ended the walk
 */
ternkit::Status WalkMimeParts(MimeMessage& message, const char* start, const char* end, const OwnedBytes& delimiter,
                              InlineImageContext& imageContext, int depth);
