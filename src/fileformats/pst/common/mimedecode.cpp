#include "fileformats/pst/common/mimedecode.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "common/apiutils.h"
#include "ternbase/ternbase.h"

using ternkit::Status;

namespace {

constexpr std::uint8_t kNoDigit = 0xFF;
constexpr std::uint64_t kGroupSize = 4;

// Value of each byte of the base64 alphabet. "=" is kept and counts as 63; what it suppresses is decided for its group.
constexpr std::array<std::uint8_t, 256> kBase64Values = [] {
    std::array<std::uint8_t, 256> values{};
    values.fill(kNoDigit);
    for (std::uint8_t at = 0; at < 26; ++at) {
        values[static_cast<std::size_t>('A' + at)] = at;
        values[static_cast<std::size_t>('a' + at)] = static_cast<std::uint8_t>(26 + at);
    }
    for (std::uint8_t at = 0; at < 10; ++at) {
        values[static_cast<std::size_t>('0' + at)] = static_cast<std::uint8_t>(52 + at);
    }
    values['+'] = 62;
    values['/'] = 63;
    values['='] = 63;
    return values;
}();

std::uint8_t base64Value(char byte) {
    return kBase64Values[static_cast<unsigned char>(byte)];
}

char* writeGroup(const char (&group)[kGroupSize], char* out) {
    const unsigned bits = static_cast<unsigned>(base64Value(group[0]) << 18 | base64Value(group[1]) << 12 |
                                                base64Value(group[2]) << 6 | base64Value(group[3]));
    *out++ = static_cast<char>(bits >> 16);
    if (group[2] != '=') {
        *out++ = static_cast<char>(bits >> 8);
    }
    if (group[3] != '=') {
        *out++ = static_cast<char>(bits);
    }
    return out;
}

void decodeQuotedPrintable(const char* begin, const char* end, OwnedBytes& decoded) {
    char* out = decoded.data;
    while (begin < end) {
        const char* equals = FindByte(begin, end, '=');
        const char* plainEnd = equals != nullptr ? equals : end;
        std::memcpy(out, begin, static_cast<std::size_t>(plainEnd - begin));
        out += plainEnd - begin;
        begin = plainEnd;
        if (equals == nullptr) {
            break;
        }
        if (end - equals > 2 && equals[1] == '\r' && equals[2] == '\n') {
            begin += 3;  // a soft line break
        } else if (end - equals > 2 && DecodeHexPair(equals[1], equals[2], *out)) {
            ++out;
            begin += 3;
        } else {
            *out++ = '\0';
            begin += 1;
        }
    }
    decoded.size = static_cast<std::uint64_t>(out - decoded.data);
}

}  // namespace

Status DecodeBase64(const char* source, std::uint64_t sourceLength, char* target, std::uint64_t& targetLength) {
    if (source == nullptr || target == nullptr || targetLength < sourceLength) {
        return ternkit::kBadArgument;
    }
    if (sourceLength == 0) {
        return ternkit::kNoMemory;
    }
    const char* end = source + sourceLength;
    char* out = target;
    char group[kGroupSize];
    std::size_t filled = 0;
    while (source < end) {
        if (filled == 0 && end - source >= static_cast<std::ptrdiff_t>(kGroupSize)) {
            const std::uint8_t values[] = {base64Value(source[0]), base64Value(source[1]), base64Value(source[2]),
                                           base64Value(source[3])};
            if ((values[0] | values[1] | values[2] | values[3]) < 64 && source[2] != '=' && source[3] != '=') {
                *out++ = static_cast<char>(values[0] << 2 | values[1] >> 4);
                *out++ = static_cast<char>(values[1] << 4 | values[2] >> 2);
                *out++ = static_cast<char>(values[2] << 6 | values[3]);
                source += kGroupSize;
                continue;
            }
        }
        if (base64Value(*source) != kNoDigit) {
            group[filled++] = *source;
            if (filled == kGroupSize) {
                out = writeGroup(group, out);
                filled = 0;
            }
        }
        ++source;
    }
    if (filled != 0) {
        std::memset(group + filled, 'A', kGroupSize - filled);
        char tail[3];
        const std::ptrdiff_t written = writeGroup(group, tail) - tail;
        const std::ptrdiff_t room = target + targetLength - out;
        std::memcpy(out, tail, static_cast<std::size_t>(std::min(written, room)));
        out += std::min(written, room);
    }
    targetLength = static_cast<std::uint64_t>(out - target);
    return ternkit::kOk;
}

bool DecodeHexPair(char first, char second, char& decoded) {
    const auto nibble = [](char byte) {
        if (byte >= '0' && byte <= '9') {
            return byte - '0';
        }
        if ((byte >= 'A' && byte <= 'F') || (byte >= 'a' && byte <= 'f')) {
            return (byte | 0x20) - 'a' + 10;
        }
        return static_cast<int>(static_cast<signed char>(byte));
    };
    const int high = nibble(first);
    const int low = nibble(second);
    // The comparison is signed: bytes from 0x80 up count as not above 15.
    if (high > 15 && low > 15) {
        return false;
    }
    decoded = static_cast<char>(high * 16 + low);
    return true;
}

Status DecodeContent(const char* begin, const char* end, TransferEncoding encoding, OwnedBytes& decoded) {
    const std::uint64_t length = static_cast<std::uint64_t>(end - begin);
    const std::uint64_t mark = encoding == TransferEncoding::SevenBit ? kSevenBitMarkSize : 0;
    decoded.clear();
    if (decoded.ensure(length + mark + kBase64Slack + 1) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    switch (encoding) {
        case TransferEncoding::QuotedPrintable:
            decodeQuotedPrintable(begin, end, decoded);
            break;
        case TransferEncoding::Base64: {
            std::uint64_t written = length + kBase64Slack;
            const Status status = DecodeBase64(begin, length, decoded.data, written);
            if (status != ternkit::kOk) {
                return status;
            }
            decoded.size = written;
            break;
        }
        case TransferEncoding::SevenBit:
        case TransferEncoding::Other:
            std::memcpy(decoded.data, kSevenBitMark, mark);
            std::memcpy(decoded.data + mark, begin, length);
            decoded.size = length + mark;
            break;
    }
    decoded.data[decoded.size] = '\0';
    return ternkit::kOk;
}
