#include "common/apiutils.h"

#include <algorithm>
#include <cstring>

#include "ternbase/ternbase.h"

TB_SOURCE(u"src/common/apiutils")

namespace {

char lowered(char byte) {
    return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte + ('a' - 'A')) : byte;
}

char raised(char byte) {
    return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - ('a' - 'A')) : byte;
}

bool equalNoCase(const char* one, const char* other, std::uint64_t length) {
    for (std::uint64_t at = 0; at < length; ++at) {
        if (one[at] != other[at] && lowered(one[at]) != lowered(other[at])) {
            return false;
        }
    }
    return true;
}

}  // namespace

const char* FindByte(const char* begin, const char* end, char byte) {
    return begin < end ? static_cast<const char*>(std::memchr(begin, byte, static_cast<std::size_t>(end - begin))) : nullptr;
}

const char* FindLastByte(const char* begin, const char* end, char byte) {
    return begin < end ? static_cast<const char*>(memrchr(begin, byte, static_cast<std::size_t>(end - begin))) : nullptr;
}

const char* FindNoCaseCounted(const char* begin, const char* needle, std::uint64_t haystackLength, std::uint64_t needleLength) {
    if (begin == nullptr || needle == nullptr || needleLength == 0 || needleLength > haystackLength) {
        return nullptr;
    }
    const char* last = begin + (haystackLength - needleLength) + 1;  // a match starts in front of it
    const char low = lowered(needle[0]);
    const char high = raised(needle[0]);
    // Both next hits are kept: searching a case form that is rare anew at each hit of the other would take quadratic time.
    const char* nextLow = FindByte(begin, last, low);
    const char* nextHigh = high == low ? nullptr : FindByte(begin, last, high);
    while (nextLow != nullptr || nextHigh != nullptr) {
        const bool lowFirst = nextHigh == nullptr || (nextLow != nullptr && nextLow < nextHigh);
        const char* hit = lowFirst ? nextLow : nextHigh;
        if (equalNoCase(hit + 1, needle + 1, needleLength - 1)) {
            return hit;
        }
        if (lowFirst) {
            nextLow = FindByte(hit + 1, last, low);
        } else {
            nextHigh = FindByte(hit + 1, last, high);
        }
    }
    return nullptr;
}

const char* FindNoCaseInRange(const char* begin, const char* end, const char* needle) {
    if (needle == nullptr || begin == nullptr || begin >= end) {
        return nullptr;
    }
    return FindNoCaseCounted(begin, needle, static_cast<std::uint64_t>(end - begin), std::strlen(needle));
}

bool StartsWithNoCase(const char* position, const char* end, const char* prefix) {
    for (; *prefix != '\0'; ++prefix, ++position) {
        if (position >= end || lowered(*position) != lowered(*prefix)) {
            return false;
        }
    }
    return position <= end;
}

const char* FindBytes(const char* begin, const char* end, const char* needle, std::uint64_t needleLength) {
    if (begin == nullptr || begin >= end || needleLength == 0) {
        return nullptr;
    }
    return static_cast<const char*>(memmem(begin, static_cast<std::size_t>(end - begin), needle, needleLength));
}

const char* FindLineEnd(const char* begin, const char* end) {
    // In stretches that start small, so that text with only one of the two bytes does not cost a search to its end for each line.
    constexpr std::ptrdiff_t kFirstStretch = 64;
    constexpr std::ptrdiff_t kLongestStretch = 4096;
    for (std::ptrdiff_t stretch = kFirstStretch; begin < end; stretch = std::min(2 * stretch, kLongestStretch)) {
        const char* stretchEnd = begin + std::min(stretch, end - begin);
        const char* lineFeed = FindByte(begin, stretchEnd, '\n');
        const char* carriageReturn = FindByte(begin, lineFeed != nullptr ? lineFeed : stretchEnd, '\r');
        if (carriageReturn != nullptr || lineFeed != nullptr) {
            return carriageReturn != nullptr ? carriageReturn : lineFeed;
        }
        begin = stretchEnd;
    }
    return end;
}

std::uint64_t BoundedLength(const char* text, std::uint64_t size) {
    const char* end = text != nullptr ? FindByte(text, text + size, '\0') : text;
    return end != nullptr ? static_cast<std::uint64_t>(end - text) : size;
}

ScopedBlock CopyRange(const char* begin, const char* end) {
    const std::uint64_t length = static_cast<std::uint64_t>(end - begin);
    ScopedBlock copy(TbMemAlloc(length + 1, 1, TB_HERE));
    if (copy) {
        if (length != 0) {
            std::memcpy(copy.bytes(), begin, length);
        }
        copy.bytes()[length] = '\0';
    }
    return copy;
}

ScopedBlock WideFromUtf8String(const char* text) {
    const std::uint64_t length = std::strlen(text);
    ScopedBlock wide(TbMemAllocZero(length + 1, 2 * sizeof(char16_t), TB_HERE));
    if (wide && length != 0 && TbWideFromUtf8(text, length, wide.wide(), 2 * length + 1) == 0) {
        return ScopedBlock();
    }
    return wide;
}

ScopedBlock Utf8FromWideString(const char16_t* text) {
    std::uint64_t length = 0;
    while (text[length] != 0) {
        ++length;
    }
    ScopedBlock bytes(TbMemAllocZero(4 * length + 1, 1, TB_HERE));
    if (bytes && length != 0 && TbUtf8FromWide(text, length, bytes.bytes(), 4 * length) == 0) {
        return ScopedBlock();
    }
    return bytes;
}
