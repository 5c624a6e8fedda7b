#include "fileformats/pst/common/documentpasses.h"

#include <cstring>

#include "common/apiutils.h"

using ternkit::Status;

namespace {

constexpr char kMarker[] = "<div>&nbsp;value=\"/";
constexpr char kMarkerEnd[] = "\">";
constexpr char kCharsetMeta[] = "<meta http-equiv=Content-Type content=\"text/html; charset=utf-8\">";
constexpr char kHeadTag[] = "<head>";
constexpr std::ptrdiff_t kLongestReference = 5;  // bytes of "&#31;"

void blank(char* bytes, const char* begin, const char* end) {
    std::memset(bytes + (begin - bytes), ' ', static_cast<std::size_t>(end - begin));
}

void blankMarkers(char* bytes, const char* end) {
    const char* position = bytes;
    while (const char* marker = FindLiteral(position, end, kMarker)) {
        const char* close = FindLiteral(marker, end, kMarkerEnd);
        if (close == nullptr) {
            return;
        }
        position = close + sizeof(kMarkerEnd) - 1;
        blank(bytes, marker, position);
    }
}

/// Control characters 1 to 31 but for tab, LF and CR (and those that begin like them); LF and CR may stay in a text.
bool namesControlCharacter(const char* digits) {
    switch (digits[0]) {
        case '1':
            return digits[1] != '0' && digits[1] != '3';
        case '2':
            return true;
        case '3':
            return digits[1] == '0' || digits[1] == '1';
        default:
            return false;
    }
}

/// Looks at the references in order and ends at the first that stays; a ";" that is none of a reference's own ends it as well.
void blankControlReferences(char* bytes, const char* end) {
    const char* position = FindLiteral(static_cast<const char*>(bytes), end, "&#");
    while (position != nullptr) {
        const char* reference = FindLiteral(position, end, "&#");
        const char* semicolon = FindByte(position, end, ';');
        if (reference == nullptr || semicolon == nullptr || semicolon < reference || semicolon - reference >= kLongestReference ||
            !namesControlCharacter(reference + 2)) {
            return;
        }
        position = semicolon + 1;
        blank(bytes, reference, position);
    }
}

}  // namespace

void CleanDocument(char* bytes, std::uint64_t length) {
    if (bytes == nullptr) {
        return;
    }
    const char* end = bytes + BoundedLength(bytes, length);
    blankMarkers(bytes, end);
    blankControlReferences(bytes, end);
}

Status InsertCharsetMeta(ByteBuffer& document) {
    const char* end = document.data + BoundedLength(document.data, document.size);
    if (FindLiteral(document.data, end, "charset") != nullptr) {
        return ternkit::kOk;
    }
    const char* head = FindLiteral(document.data, end, kHeadTag);
    if (head == nullptr) {
        return ternkit::kOk;
    }
    constexpr std::uint64_t kMetaSize = sizeof(kCharsetMeta) - 1;
    const std::uint64_t offset = static_cast<std::uint64_t>(head - document.data) + sizeof(kHeadTag) - 1;
    if (document.reserve(document.size + kMetaSize) == nullptr) {
        return ternkit::kNoMemory;
    }
    std::memmove(document.data + offset + kMetaSize, document.data + offset, document.size - offset);
    std::memcpy(document.data + offset, kCharsetMeta, kMetaSize);
    document.size += kMetaSize;
    return ternkit::kOk;
}
