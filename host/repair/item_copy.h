// Writes an Outlook item ([MS-OXMSG]) anew, with its texts in a form that the filter shows.
#pragma once

#include <optional>
#include <string>

#include <ternkit/records.h>

namespace ternview {

/// A message that is only listed needs no attachments, which may be most of the file.
enum class Attachments { kCopied, kLeftOut };

/// The filter refuses an item with rich text that is damaged, whatever else it has.
enum class RichText { kCopied, kLeftOut };

struct ItemCopy {
    std::string bytes;
    bool isPlain = false;  // its only body is plain text
};

/**
 * An item's 8-bit texts may be in any code page, while the filter takes them for UTF-8; and an item may have its body in HTML
 * only, while the filter reads rich and plain text. The copy has what a document shows of the item: its texts in Unicode, the
 * HTML wrapped as rich text ([MS-OXRTFEX]), and the attachments, as far as all together take at most 128 MiB.
 *
 * @param file an open file, which stays the caller's
 * @return nothing when the filter needs no copy, or the file is no item; or, without the rich text, when there is no other body
 */
std::optional<ItemCopy> itemCopy(ternkit::FileHandle file, Attachments attachments = Attachments::kCopied,
                                 RichText richText = RichText::kCopied);

}  // namespace ternview
