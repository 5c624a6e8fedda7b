#include "fileformats/pst/common/rtfunicode.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <optional>

#include "ternbase/ternbase.h"
#include "ternbase/windows.h"

TB_SOURCE(u"src/fileformats/pst/common/pst")

using ternkit::Status;

namespace {

constexpr std::uint64_t kUnitsOfCharacter = 2;
constexpr std::uint64_t kBytesOfCharacter = 5;
constexpr std::uint64_t kBytesPerUnit = 2;  // of any code page that is probed

bool isSpecial(std::uint32_t character) {
    return character == '\\' || character == '{' || character == '}';
}

Status appendHex(ByteBuffer& output, std::uint32_t value) {
    constexpr char kDigits[] = "0123456789abcdef";
    const char escape[] = {'\\', '\'', kDigits[value >> 4 & 0xF], kDigits[value & 0xF]};
    return output.append(escape, sizeof(escape));
}

// Work areas for the conversion of a text and back.
struct WorkArea {
    char16_t* wide;
    char* bytes;
    std::uint64_t byteCount;
};

bool RoundTrips(const char16_t* text, std::uint64_t length, std::uint32_t codePage, const WorkArea& area) {
    int usedDefault = 0;
    const int bytes = WideCharToMultiByte(codePage, 0, text, static_cast<int>(length), area.bytes,
                                          static_cast<int>(area.byteCount), "?", &usedDefault);
    if (bytes == 0 || usedDefault != 0) {
        return false;
    }
    const int units = MultiByteToWideChar(codePage, 0, area.bytes, bytes, area.wide, static_cast<int>(length));
    return static_cast<std::uint64_t>(units) == length && std::equal(text, text + length, area.wide);
}

bool characterRoundTrips(const char16_t* character, std::uint64_t units, std::uint32_t codePage) {
    char16_t wide[kUnitsOfCharacter];
    char bytes[kBytesOfCharacter];
    return RoundTrips(character, units, codePage, {wide, bytes, sizeof(bytes)});
}

/// The first probed code page that holds the whole text.
std::optional<std::uint32_t> FindCodePage(const char16_t* text, std::uint64_t length) {
    if (length == 0) {
        return std::nullopt;
    }
    const ScopedBlock wide(TbMemAlloc(length, sizeof(char16_t), TB_HERE));
    const ScopedBlock bytes(TbMemAlloc(length, kBytesPerUnit, TB_HERE));
    if (!wide || !bytes) {
        return std::nullopt;
    }
    for (const std::uint32_t codePage : ProbedCodePages()) {
        if (RoundTrips(text, length, codePage, {wide.wide(), bytes.bytes(), kBytesPerUnit * length})) {
            return codePage;
        }
    }
    return std::nullopt;
}

std::optional<std::uint32_t> findCodePageOfCharacter(const char16_t* character, std::uint64_t units) {
    for (const std::uint32_t codePage : ProbedCodePages()) {
        if (characterRoundTrips(character, units, codePage)) {
            return codePage;
        }
    }
    return std::nullopt;
}

// Writes one text. The document's default font is the base font: ASCII stands in it, and it is the current one at the end.
class UnicodeWriter {
public:
    UnicodeWriter(HeaderComposer& composer, const char16_t* text, std::uint64_t length)
        : m_composer(composer),
          m_output(composer.headerText),
          m_text(text),
          m_end(length),
          m_baseFont(composer.fonts.defaultFont),
          m_currentFont(composer.fonts.defaultFont) {}

    Status EncodeRtfUnicode() {
        Status status = ternkit::kOk;
        if (const auto codePage = FindCodePage(m_text, m_end)) {
            status = EmitInCodePage(*codePage, m_end);
        } else {
            while (m_position < m_end && status == ternkit::kOk) {
                status = EmitAscii(m_end);
                if (status == ternkit::kOk && m_position < m_end) {
                    status = emitCharacters();
                }
            }
        }
        return status == ternkit::kOk ? SetFont(m_baseFont) : status;
    }

private:
    Status SetFont(std::int32_t font) {
        if (font == m_currentFont) {
            return ternkit::kOk;
        }
        char word[16];
        const int length = std::snprintf(word, sizeof(word), "\\f%d ", font);
        m_currentFont = font;
        return m_output.append(word, static_cast<std::uint64_t>(length));
    }

    /// Writes [from, position), which is ASCII, in the base font.
    Status appendRun(std::uint64_t from) {
        if (from == m_position) {
            return ternkit::kOk;
        }
        const Status status = SetFont(m_baseFont);
        if (status != ternkit::kOk) {
            return status;
        }
        const std::uint64_t count = m_position - from;
        if (m_output.reserve(m_output.size + count) == nullptr) {
            return m_output.lastError;
        }
        std::transform(m_text + from, m_text + m_position, m_output.data + m_output.size,
                       [](char16_t unit) { return static_cast<char>(unit); });
        m_output.size += count;
        return ternkit::kOk;
    }

    /// Writes text up to `end`, a NUL or the first unit outside ASCII, where the position then stands.
    Status EmitAscii(std::uint64_t end) {
        std::uint64_t run = m_position;
        for (; m_position < end && m_text[m_position] != 0 && m_text[m_position] < 0x80; ++m_position) {
            const char16_t unit = m_text[m_position];
            if (unit >= 0x20 && !isSpecial(unit)) {
                continue;
            }
            Status status = appendRun(run);
            if (status == ternkit::kOk) {
                status = SetFont(m_baseFont);
            }
            if (status == ternkit::kOk) {
                status = appendHex(m_output, unit);
            }
            if (status != ternkit::kOk) {
                return status;
            }
            run = m_position + 1;
        }
        return appendRun(run);
    }

    /// Writes the bytes that stand for [position, end). An ASCII byte among them is the second of a pair and stays as it is
    /// unless it would be taken for RTF.
    Status emitBytes(std::uint32_t codePage, std::uint64_t end) {
        const std::uint64_t units = end - m_position;
        const ScopedBlock bytes(TbMemAlloc(units, kBytesPerUnit, TB_HERE));
        if (!bytes) {
            return ternkit::kNoMemory;
        }
        const int count = WideCharToMultiByte(codePage, 0, m_text + m_position, static_cast<int>(units), bytes.bytes(),
                                              static_cast<int>(kBytesPerUnit * units), nullptr, nullptr);
        if (count == 0) {
            return ternkit::kBadArgument;
        }
        for (const char* at = bytes.bytes(); at < bytes.bytes() + count; ++at) {
            const unsigned char byte = static_cast<unsigned char>(*at);
            const Status status = byte >= 0x80 || isSpecial(byte) ? appendHex(m_output, byte) : m_output.append(at, 1);
            if (status != ternkit::kOk) {
                return status;
            }
        }
        m_position = end;
        return ternkit::kOk;
    }

    /// Writes [position, end), whose characters outside ASCII the code page has.
    Status EmitInCodePage(std::uint32_t codePage, std::uint64_t end) {
        std::int32_t font = 0;
        Status status = FontForCodePage(m_composer.fonts, codePage, font);
        while (m_position < end && status == ternkit::kOk) {
            std::uint64_t stretchEnd = m_position;
            while (stretchEnd < end && m_text[stretchEnd] >= 0x80) {
                ++stretchEnd;
            }
            status = SetFont(font);
            if (status == ternkit::kOk) {
                status = emitBytes(codePage, stretchEnd);
            }
            if (status == ternkit::kOk) {
                status = EmitAscii(end);
            }
        }
        return status;
    }

    std::uint64_t characterEnd(std::uint64_t position) const {
        const std::uint64_t next = static_cast<std::uint64_t>(TbNextChar(m_text + position, m_end - position) - m_text);
        return std::clamp(next, position + 1, std::min(position + kUnitsOfCharacter, m_end));
    }

    /// End of the run of characters from `position` on that the code page has, with the ASCII between and behind them.
    std::uint64_t runEnd(std::uint64_t position, std::uint32_t codePage) const {
        while (position < m_end) {
            const std::uint64_t next = characterEnd(position);
            if (m_text[position] >= 0x80 && !characterRoundTrips(m_text + position, next - position, codePage)) {
                break;
            }
            position = next;
        }
        return position;
    }

    /// Writes the character at the position, with those behind it that its code page has too.
    Status emitCharacters() {
        const std::uint64_t next = characterEnd(m_position);
        if (const auto codePage = findCodePageOfCharacter(m_text + m_position, next - m_position)) {
            return EmitInCodePage(*codePage, runEnd(next, *codePage));
        }
        Status status = ternkit::kOk;
        if (const auto font = m_composer.coverage.fontFor(m_composer.fonts, m_text + m_position, next - m_position)) {
            status = SetFont(*font);
        }
        for (; m_position < next && status == ternkit::kOk; ++m_position) {
            // The "?" is for readers that know no \u.
            char word[16];
            const int length = std::snprintf(word, sizeof(word), "\\u%d ?", static_cast<std::int16_t>(m_text[m_position]));
            status = m_output.append(word, static_cast<std::uint64_t>(length));
        }
        return status;
    }

    HeaderComposer& m_composer;
    ByteBuffer& m_output;
    const char16_t* m_text;
    std::uint64_t m_position = 0;
    std::uint64_t m_end;
    std::int32_t m_baseFont;
    std::int32_t m_currentFont;
};

Status escapeWide(HeaderComposer& composer, const char* text, std::uint64_t length) {
    if (length > INT_MAX / kBytesPerUnit) {
        return ternkit::kNoMemory;
    }
    WideBuffer wide;
    if (wide.reserve(length + 1) == nullptr) {
        return wide.lastError;
    }
    const int units = MultiByteToWideChar(kCodePageUtf8, 0, text, static_cast<int>(length), wide.data, static_cast<int>(length));
    wide.size = static_cast<std::uint64_t>(units);
    wide.data[wide.size] = 0;
    return UnicodeWriter(composer, wide.data, wide.size).EncodeRtfUnicode();
}

}  // namespace

Status EscapeRtfText(HeaderComposer& composer, const char* text, std::uint64_t length) {
    ByteBuffer& output = composer.headerText;
    const char* end = text + length;
    const char* run = text;
    for (const char* at = text; at < end; ++at) {
        const unsigned char byte = static_cast<unsigned char>(*at);
        if (byte >= 0x20 && byte < 0x80 && !isSpecial(byte)) {
            continue;
        }
        Status status = output.append(run, static_cast<std::uint64_t>(at - run));
        if (status != ternkit::kOk) {
            return status;
        }
        if (byte >= 0x80) {
            return escapeWide(composer, at, static_cast<std::uint64_t>(end - at));
        }
        status = appendHex(output, byte);
        if (status != ternkit::kOk) {
            return status;
        }
        run = at + 1;
    }
    return output.append(run, static_cast<std::uint64_t>(end - run));
}
