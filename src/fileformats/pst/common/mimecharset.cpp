#include "fileformats/pst/common/mimecharset.h"

#include <cstdio>
#include <cstring>

#include "common/apiutils.h"
#include "fileformats/pst/common/jisrowtable.h"
#include "fileformats/pst/common/mimedecode.h"
#include "ternbase/ternbase.h"
#include "ternbase/windows.h"

TB_SOURCE(u"src/fileformats/pst/common/pst")

using ternkit::Status;

namespace {

constexpr char kUtf8Name[] = "UTF-8";
constexpr std::uint64_t kUtf8NameSize = sizeof(kUtf8Name) - 1;
constexpr char kCharsetParameter[] = "charset=";
constexpr char kIso2022JpName[] = "iso-2022-jp";
constexpr std::uint64_t kShortestEncodedValue = 14;  // bytes with the closing NUL: "=?c?Q?t?=" needs a charset name of four
constexpr std::uint32_t kCodePageLatin1 = 1252;
constexpr std::uint32_t kCodePageGb2312 = 936;
constexpr std::uint64_t kUtf8BytesPerUnit = 4;

bool isWholeName(const char* start, const char* end, const char* name) {
    return static_cast<std::size_t>(end - start) == std::strlen(name) && StartsWithNoCase(start, end, name);
}

std::uint32_t decimalNumber(const char* start, const char* end) {
    std::uint32_t number = 0;
    for (; start < end && *start >= '0' && *start <= '9'; ++start) {
        number = number * 10 + static_cast<std::uint32_t>(*start - '0');
    }
    return number;
}

// Where the pieces of "=?charset?letter?text?=" lie.
struct EncodedWord {
    const char* begin;  // its "=?"
    const char* charsetEnd;
    char letter;
    const char* text;
    const char* textEnd;
};

/// The next encoded word of [from, end); false when there is none, or what looks like one is not in form.
bool findEncodedWord(const char* from, const char* end, EncodedWord& word) {
    word.begin = FindLiteral(from, end, "=?");
    if (word.begin == nullptr) {
        return false;
    }
    word.charsetEnd = FindByte(word.begin + 2, end, '?');
    if (word.charsetEnd == nullptr || end - word.charsetEnd <= 2) {
        return false;
    }
    const char* letterEnd = FindByte(word.charsetEnd + 2, end, '?');
    if (letterEnd != word.charsetEnd + 2 || end - letterEnd <= 2) {
        return false;
    }
    word.letter = word.charsetEnd[1];
    word.text = letterEnd + 1;
    word.textEnd = FindLiteral(letterEnd + 2, end, "?=");
    return word.textEnd != nullptr;
}

void decodeQ(const EncodedWord& word, OwnedBytes& decoded) {
    char* out = decoded.data;
    for (const char* at = word.text; at < word.textEnd; ++at) {
        if (*at == '_') {
            *out++ = ' ';
        } else if (*at != '=') {
            *out++ = *at;
        } else if (word.textEnd - at > 2 && at[1] == '\r' && at[2] == '\n') {
            at += 2;
        } else if (word.textEnd - at > 2 && DecodeHexPair(at[1], at[2], *out)) {
            ++out;
            at += 2;
        } else {
            *out++ = '\0';
        }
    }
    decoded.size = static_cast<std::uint64_t>(out - decoded.data);
}

/// Decodes one word into UTF-8, without the closing NUL that a word may bring.
Status decodeWord(const EncodedWord& word, MimeCharset charset, OwnedBytes& decoded) {
    const std::uint64_t length = static_cast<std::uint64_t>(word.textEnd - word.text);
    decoded.clear();
    if (decoded.ensure(length + kBase64Slack + 1) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    if (word.letter == 'B') {
        std::uint64_t written = length + kBase64Slack;
        const Status status = DecodeBase64(word.text, length, decoded.data, written);
        if (status != ternkit::kOk) {
            return status;
        }
        decoded.size = written;
    } else {
        decodeQ(word, decoded);
    }
    Status status = ternkit::kOk;
    if (charset.id != MimeCharsetId::Utf8 && charset.id != MimeCharsetId::UsAscii) {
        status = ConvertRangeToUtf8(decoded, 0, charset);
    }
    decoded.size = decoded.textLength();
    return status;
}

bool isDecodable(const EncodedWord& word, MimeCharset& charset) {
    charset = ParseCharsetName(word.begin + 2, word.charsetEnd);
    return charset.id != MimeCharsetId::None && charset.id != MimeCharsetId::Unknown &&
           (word.letter == 'B' || word.letter == 'Q');
}

// Character sets that ISO-2022-JP switches between.
enum class JisMode { Ascii, Roman, Kanji };

struct JisEscape {
    const char* begin;
    const char* end;
    JisMode mode;
};

/// The next switch of character sets in [from, end), or an empty one at the end.
JisEscape findJisEscape(const char* from, const char* end) {
    constexpr char kEscape = '\x1B';
    for (const char* at = FindByte(from, end, kEscape); at != nullptr; at = FindByte(at + 1, end, kEscape)) {
        if (end - at < 3) {
            break;
        }
        if (at[1] == '(' && (at[2] == 'B' || at[2] == 'J')) {
            return {at, at + 3, at[2] == 'B' ? JisMode::Ascii : JisMode::Roman};
        }
        if (at[1] == '$' && (at[2] == '@' || at[2] == 'B')) {
            return {at, at + 3, JisMode::Kanji};
        }
    }
    return {end, end, JisMode::Ascii};
}

char16_t kanji(unsigned char first, unsigned char second) {
    const JisRow& row = kJisRowTable[first <= 0x28 ? first - 0x21 : first - 0x27];
    const std::uint32_t cell = second - 0x21U;
    return cell < row.count ? row.values[cell] : u'\uFFFD';
}

/// Takes the next value off a stretch of JIS X 0208 text; false when only half a character is left.
bool takeKanji(const char*& position, const char* end, char16_t& value) {
    const unsigned char first = static_cast<unsigned char>(*position++);
    value = u'\uFFFD';
    if (first == 0x20 || first == 0x7F) {
        value = first;
    } else if ((first >= 0x21 && first <= 0x28) || (first >= 0x30 && first <= 0x74)) {
        if (position == end) {
            return false;
        }
        const unsigned char second = static_cast<unsigned char>(*position++);
        value = second >= 0x21 ? kanji(first, second) : value;
    }
    return true;
}

Status appendKanji(ByteBuffer& output, const char* begin, const char* end) {
    constexpr std::uint64_t kChunk = 1024;
    char16_t wide[kChunk];
    while (begin < end) {
        std::uint64_t count = 0;
        while (count < kChunk && begin < end && takeKanji(begin, end, wide[count])) {
            ++count;
        }
        const std::uint64_t room = kUtf8BytesPerUnit * count;
        if (output.reserve(output.size + room) == nullptr) {
            return ternkit::kNoMemory;
        }
        if (count != 0) {
            output.size += static_cast<std::uint64_t>(WideCharToMultiByte(kCodePageUtf8, 0, wide, static_cast<int>(count),
                                                                          output.data + output.size, static_cast<int>(room),
                                                                          nullptr, nullptr));
        }
    }
    return ternkit::kOk;
}

/// JIS X 0201 Roman: ASCII but for two characters.
Status appendRoman(ByteBuffer& output, const char* begin, const char* end) {
    Status status = ternkit::kOk;
    const char* run = begin;
    for (; begin < end && status == ternkit::kOk; ++begin) {
        if (*begin == 0x5C || *begin == 0x7E) {
            const char* substitute = *begin == 0x5C ? "\xC2\xA5" : "\xE2\x80\xBE";
            status = output.append(run, static_cast<std::uint64_t>(begin - run));
            if (status == ternkit::kOk) {
                status = output.append(substitute, std::strlen(substitute));
            }
            run = begin + 1;
        }
    }
    return status == ternkit::kOk ? output.append(run, static_cast<std::uint64_t>(end - run)) : status;
}

Status appendJisSegments(ByteBuffer& output, const char* segment, const char* end) {
    JisMode mode = JisMode::Ascii;
    JisMode lastSingleByteMode = JisMode::Ascii;
    JisEscape escape = findJisEscape(segment, end);
    while (true) {
        const char* segmentEnd = escape.begin;
        bool lineEndsIt = false;
        Status status = ternkit::kOk;
        if (mode == JisMode::Kanji) {
            // A line end resets the character set, whatever escape follows.
            segmentEnd = FindLineEnd(segment, escape.begin);
            lineEndsIt = segmentEnd != escape.begin;
            status = appendKanji(output, segment, segmentEnd);
        } else {
            lastSingleByteMode = mode;
            status = mode == JisMode::Roman ? appendRoman(output, segment, segmentEnd)
                                            : output.append(segment, static_cast<std::uint64_t>(segmentEnd - segment));
        }
        if (status != ternkit::kOk) {
            return ternkit::kNoMemory;
        }
        if (lineEndsIt) {
            segment = segmentEnd;
            mode = lastSingleByteMode;
        } else if (escape.begin == end) {
            return ternkit::kOk;
        } else {
            segment = escape.end;
            mode = escape.mode;
            escape = findJisEscape(segment, end);
        }
    }
}

/// ConvertRangeToUtf8, telling whether a code page has converted the text: then its size counts a closing NUL.
Status convertRange(OwnedBytes& buffer, std::uint64_t offset, MimeCharset charset, bool& converted) {
    converted = false;
    if (offset >= buffer.size) {
        return ternkit::kOk;
    }
    std::uint32_t codePage = 0;
    switch (charset.id) {
        case MimeCharsetId::Iso2022Jp:
            return ConvertIso2022JpToUtf8(buffer, offset);
        case MimeCharsetId::Latin1:
            codePage = kCodePageLatin1;
            break;
        case MimeCharsetId::Gb2312:
            codePage = kCodePageGb2312;
            break;
        case MimeCharsetId::Windows:
            codePage = charset.codePage;
            break;
        default:
            return ternkit::kOk;
    }
    const std::uint64_t count = buffer.textLength() - offset;
    // No code page makes more units than it has bytes.
    const ScopedBlock wide(TbMemAlloc(count + 1, sizeof(char16_t), TB_HERE));
    if (!wide) {
        return ternkit::kNoMemory;
    }
    const int characters =
        MultiByteToWideChar(codePage, 0, buffer.data + offset, static_cast<int>(count), wide.wide(), static_cast<int>(count + 1));
    if (characters <= 0) {
        return ternkit::kOk;
    }
    const std::uint64_t room = kUtf8BytesPerUnit * static_cast<std::uint64_t>(characters);
    const std::uint64_t oldSize = buffer.size;
    if (buffer.ensure(offset + room + 1) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    const std::uint64_t written = TbUtf8FromWide(wide.wide(), static_cast<std::uint64_t>(characters), buffer.data + offset, room);
    if (written == 0) {
        buffer.size = oldSize;
        return ternkit::kUtf8ConversionFailed;
    }
    buffer.size = offset + written;
    buffer.data[buffer.size++] = '\0';
    converted = true;
    return ternkit::kOk;
}

}  // namespace

MimeCharset ParseCharsetName(const char* start, const char* end) {
    constexpr char kWindows[] = "windows-";
    if (isWholeName(start, end, "gb2312")) {
        return {MimeCharsetId::Gb2312, 0};
    }
    if (StartsWithNoCase(start, end, kIso2022JpName)) {
        return {MimeCharsetId::Iso2022Jp, 0};
    }
    if (isWholeName(start, end, "iso-8859-1")) {
        return {MimeCharsetId::Latin1, 0};
    }
    if (StartsWithNoCase(start, end, "us-ascii")) {
        return {MimeCharsetId::UsAscii, 0};
    }
    if (StartsWithNoCase(start, end, "utf-8")) {
        return {MimeCharsetId::Utf8, 0};
    }
    if (StartsWithNoCase(start, end, kWindows)) {
        return {MimeCharsetId::Windows, decimalNumber(start + sizeof(kWindows) - 1, end)};
    }
    return {MimeCharsetId::Unknown, 0};
}

Status ParseCharsetParameter(MimeCharset& charset, const char* start, const char* end) {
    charset = MimeCharset();
    const char* name = FindNoCaseInRange(start, end, kCharsetParameter);
    if (name == nullptr) {
        return 0;
    }
    name += sizeof(kCharsetParameter) - 1;
    if (name < end && *name == '"') {
        ++name;
    }
    const char* quote = FindByte(name, end, '"');
    const char* nameEnd = quote != nullptr ? quote : end;
    if (const char* semicolon = FindByte(name, nameEnd, ';')) {
        nameEnd = semicolon;
    }
    while (nameEnd > name && (nameEnd[-1] == '\t' || nameEnd[-1] == '\n' || nameEnd[-1] == '\r' || nameEnd[-1] == ' ')) {
        --nameEnd;
    }
    charset = ParseCharsetName(name, nameEnd);
    return ternkit::kOk;
}

Status DecodeEncodedWords(OwnedBytes& value, std::uint32_t* flag) {
    if (value.data == nullptr || value.size < kShortestEncodedValue) {
        return ternkit::kOk;
    }
    const char* current = value.data;
    const char* end = value.data + value.textLength();
    ByteBuffer decodedValue(kLineGrowBy);
    bool decodedAny = false;
    EncodedWord word;
    MimeCharset charset;
    OwnedBytes decoded;
    while (findEncodedWord(current, end, word) && isDecodable(word, charset)) {
        Status status = decodeWord(word, charset, decoded);
        if (status == ternkit::kOk) {
            status = decodedValue.append(current, static_cast<std::uint64_t>(word.begin - current));
        }
        if (status == ternkit::kOk) {
            status = decodedValue.append(decoded.data, decoded.size);
        }
        if (status != ternkit::kOk) {
            return status;
        }
        if (charset.id != MimeCharsetId::UsAscii && flag != nullptr) {
            *flag = 1;
        }
        decodedAny = true;
        current = word.textEnd + 2;
    }
    if (!decodedAny) {
        return ternkit::kOk;
    }
    const char terminator = '\0';
    if (decodedValue.append(current, static_cast<std::uint64_t>(end - current)) != ternkit::kOk ||
        decodedValue.append(&terminator, 1) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    value.take(decodedValue);
    return ternkit::kOk;
}

Status ConvertRangeToUtf8(OwnedBytes& buffer, std::uint64_t offset, MimeCharset charset) {
    bool converted = false;
    return convertRange(buffer, offset, charset, converted);
}

Status ConvertIso2022JpToUtf8(OwnedBytes& buffer, std::uint64_t offset) {
    if (offset >= buffer.size) {
        return ternkit::kOk;
    }
    const char* name = FindNoCaseCounted(buffer.data + offset, kIso2022JpName, buffer.size - offset, sizeof(kIso2022JpName) - 1);
    if (name != nullptr && buffer.replaceRange(static_cast<std::uint64_t>(name - buffer.data), sizeof(kIso2022JpName) - 1,
                                               kUtf8Name, kUtf8NameSize) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    const char* end = buffer.data + buffer.size;
    const char* escape = FindByte(buffer.data + offset, end, '\x1B');
    if (escape == nullptr) {
        return ternkit::kOk;
    }
    ByteBuffer output;
    const char terminator = '\0';
    if (output.reserve(buffer.size + 1) == nullptr ||
        output.append(buffer.data, static_cast<std::uint64_t>(escape - buffer.data)) != ternkit::kOk ||
        appendJisSegments(output, escape, end) != ternkit::kOk || output.append(&terminator, 1) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    --output.size;
    buffer.take(output);
    return ternkit::kOk;
}

Status ConvertPartToUtf8(OwnedBytes& bytes, MimeCharset& charset, std::uint32_t convertAll) {
    if (bytes.data == nullptr) {
        return ternkit::kNullPointer;
    }
    if (charset.id == MimeCharsetId::Iso2022Jp) {
        return ConvertIso2022JpToUtf8(bytes, 0);
    }
    if (convertAll == 0) {
        return ternkit::kOk;
    }
    char windowsName[32];
    const char* declared = windowsName;
    switch (charset.id) {
        case MimeCharsetId::UsAscii:
            declared = "us-ascii";
            break;
        case MimeCharsetId::Latin1:
            declared = "iso-8859-1";
            break;
        case MimeCharsetId::Gb2312:
            declared = "gb2312";
            break;
        case MimeCharsetId::Windows:
            std::snprintf(windowsName, sizeof(windowsName), "windows-%d", static_cast<int>(charset.codePage));
            break;
        default:
            return ternkit::kOk;
    }
    std::uint64_t offset = 0;
    const char* found = FindNoCaseInRange(bytes.data, bytes.data + bytes.size, declared);
    if (found != nullptr) {
        offset = static_cast<std::uint64_t>(found - bytes.data);
        const Status status = bytes.replaceRange(offset, std::strlen(declared), kUtf8Name, kUtf8NameSize);
        if (status != ternkit::kOk) {
            return status;
        }
        offset += kUtf8NameSize;
        if (charset.id == MimeCharsetId::UsAscii) {
            charset.id = MimeCharsetId::Utf8;
            return ternkit::kOk;
        }
    }
    bool converted = false;
    const Status status = convertRange(bytes, offset, charset, converted);
    bytes.size -= converted ? 1 : 0;
    return status;
}
