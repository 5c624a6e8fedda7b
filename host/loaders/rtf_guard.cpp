#include "rtf_guard.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <vector>

namespace ternview {
namespace {

// Groups that go, with everything in them: those that name something, and comments, with which the suite, as a library, refuses
// the whole document.
constexpr std::array<std::string_view, 15> kDroppedGroups{
    "objdata",          "template", "filetbl", "datastore", "mailmerge", "mmdatasource", "mmheadersource", "mmconnectstr",
    "mmconnectstrdata", "mmquery",  "mmodso",  "linkval",   "nextfile",  "subdocument",  "annotation",
};

// Instructions that name nothing outside the document, or, as HYPERLINK, nothing that is looked at.
constexpr std::array<std::string_view, 4> kHarmlessFields{"HYPERLINK", "SYMBOL", "PAGE", "NUMPAGES"};

// Formatting of characters. Other words may begin something that the suite does not take for a part of the instruction.
constexpr std::array<std::string_view, 46> kCharacterFormatting{
    "ab",       "acf",    "af",       "afs",     "ai",        "alang",      "alangfe", "b",       "caps",  "cb",
    "cf",       "cgrid",  "charrsid", "chcbpat", "cs",        "dbch",       "delrsid", "dn",      "expnd", "expndtw",
    "f",        "fcs",    "fs",       "hich",    "highlight", "i",          "insrsid", "kerning", "lang",  "langfe",
    "langfenp", "langnp", "loch",     "ltrch",   "noproof",   "nosupersub", "plain",   "rtlch",   "scaps", "strike",
    "sub",      "super",  "ul",       "ulnone",  "up",        "webhidden",
};

// East Asian code pages, in which a byte from 0x80 up may be the first half of a character.
constexpr std::array<std::int64_t, 5> kDoubleBytePages{932, 936, 949, 950, 1361};

// Smaller paper cannot be drawn on, or takes thousands of pages for a few words.
constexpr std::int64_t kSmallestPaper = 720;  // in twips: half an inch

long twips(double pixels) {
    return std::lround(pixels * 15);
}

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isOneOf(const auto& name, const auto& names) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

constexpr std::int64_t kMostSubstitutes = 1 << 30;

/// How many characters stand behind one that is given by number, in a group, and how many of them are still to come.
struct Substitutes {
    int perCharacter = 1;
    int awaited = 0;
    bool operator==(const Substitutes&) const = default;
};

/// What holds in a group and goes on in the groups within it, but not behind it. Groups that change nothing take no memory.
class GroupedSubstitutes {
public:
    const Substitutes& here() const { return here_; }
    void set(const Substitutes& changed) {
        if (changed == here_) {
            return;
        }
        if (outside_.empty() || outside_.back().depth != depth_) {
            outside_.push_back({depth_, here_});
        }
        here_ = changed;
    }
    void open() { ++depth_; }
    void close() {
        if (!outside_.empty() && outside_.back().depth == depth_) {
            here_ = outside_.back().substitutes;
            outside_.pop_back();
        }
        --depth_;
    }

private:
    struct Outside {
        std::size_t depth;  // of the group within
        Substitutes substitutes;
    };
    Substitutes here_;
    std::size_t depth_ = 1;
    std::vector<Outside> outside_;
};

/// One step through RTF: a control word with its number and delimiter, a control symbol, a brace, or plain text up to those.
struct Token {
    std::string_view raw;
    std::string name;  // of a control word, in lower case
    std::int64_t number = 0;
};

Token readToken(std::string_view rest) {
    Token token;
    if (rest.front() != '\\') {
        const std::size_t end = rest.find_first_of("\\{}", 1);
        token.raw = rest.substr(0, rest.front() == '{' || rest.front() == '}' ? 1 : end);
        return token;
    }
    std::size_t at = 1;
    while (at < rest.size() && isLetter(rest[at])) {
        token.name += static_cast<char>(rest[at++] | 0x20);
    }
    if (at == 1) {
        token.raw = rest.substr(0, 2);
        return token;
    }
    const std::size_t numberAt = at;
    if (at + 1 < rest.size() && rest[at] == '-' && isDigit(rest[at + 1])) {
        ++at;
    }
    while (at < rest.size() && isDigit(rest[at])) {
        ++at;
    }
    std::from_chars(rest.data() + numberAt, rest.data() + at, token.number);
    if (at < rest.size() && rest[at] == ' ') {
        ++at;
    }
    token.raw = rest.substr(0, at);
    return token;
}

class Guard {
public:
    Guard(std::string_view rtf, const PageSetup& setup, RtfPictures pictures) : rest_(rtf), setup_(setup), pictures_(pictures) {
        writeStart();
    }

    std::string run() {
        std::size_t depth = 1;
        while (depth > 0 && !rest_.empty()) {
            const Token token = take();
            if (token.raw == "\\" || (token.raw == "\\'" && rest_.size() < 2)) {
                break;  // cut in the middle of an escape
            }
            depth += token.raw == "{" ? 1 : 0;
            depth -= token.raw == "}" ? 1 : 0;
            countSubstitutes(token);
            if (token.name == "bin") {
                out_ += ' ';  // what stands on both sides must not become one word or one number
                writeAsHex(takeBinary(token));
            } else if (isDropped(token)) {
                dropRestOfGroup();
            } else if (!writeBullet(token) && !writePaper(token)) {
                out_ += token.raw;
            }
        }
        // The suite shows nothing of a document whose groups are not closed, or are closed too often.
        out_.append(depth, '}');
        return std::move(out_);
    }

private:
    Token take() {
        Token token = readToken(rest_);
        rest_.remove_prefix(token.raw.size());
        return token;
    }

    /// A document's own settings come later and replace these.
    void writeStart() {
        out_ += take().raw;  // the brace
        out_ += take().raw;  // "\rtf1"
        out_ += "\\paperw" + std::to_string(twips(setup_.width)) + "\\paperh" + std::to_string(twips(setup_.height));
        for (const char* side : {"\\margl", "\\margr", "\\margt", "\\margb"}) {
            out_ += side + std::to_string(twips(setup_.margin));
        }
        out_ += '\n';
    }

    std::string_view takeBinary(const Token& token) {
        const auto size =
            static_cast<std::size_t>(std::clamp<std::int64_t>(token.number, 0, static_cast<std::int64_t>(rest_.size())));
        const std::string_view bytes = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return bytes;
    }

    /// Pictures may come in either form. In hexadecimal nobody can disagree on where they end, and see a control word in them.
    void writeAsHex(std::string_view bytes) {
        constexpr std::string_view kDigits = "0123456789abcdef";
        for (const char c : bytes) {
            const auto byte = static_cast<unsigned char>(c);
            out_ += kDigits[byte >> 4];
            out_ += kDigits[byte & 15];
        }
    }

    /// A paragraph's bullet (\pntxtb) is one byte of a symbol font. Where the document's code page is an East Asian one, the
    /// suite takes that byte for half a character of the page and shows a replacement character, so it is given as the
    /// private-use character that stands for it.
    /// @return whether the token was such a byte, and is written
    bool writeBullet(const Token& token) {
        if (token.name == "ansicpg") {
            isDoubleByte_ = isOneOf(token.number, kDoubleBytePages);
        } else if (token.name == "pntxtb") {
            isBullet_ = true;
            return false;
        }
        const bool isSymbol = isBullet_ && isDoubleByte_ && token.raw == "\\'";
        isBullet_ = false;
        unsigned byte = 0;
        if (!isSymbol || std::from_chars(rest_.data(), rest_.data() + 2, byte, 16).ptr != rest_.data() + 2 || byte < 0x80) {
            return false;
        }
        rest_.remove_prefix(2);
        substitutes_.set({1, substitutes_.here().awaited});
        out_ += "\\uc1\\u" + std::to_string(0xF000 + static_cast<int>(byte) - 0x10000) + " ?";
        return true;
    }

    /// Programs without paper write a size of 0. They get the width or height of a document without its own.
    /// @return whether the token was such a size, and is written
    bool writePaper(const Token& token) {
        const bool isWidth = token.name == "paperw" || token.name == "pgwsxn";
        const bool isHeight = token.name == "paperh" || token.name == "pghsxn";
        if ((!isWidth && !isHeight) || token.number >= kSmallestPaper) {
            return false;
        }
        out_ += "\\" + token.name + std::to_string(twips(isWidth ? setup_.width : setup_.height));
        out_ += token.raw.back() == ' ' ? " " : "";
        return true;
    }

    void dropRestOfGroup() {
        int depth = 1;
        while (!rest_.empty()) {
            if (rest_.front() == '}' && --depth == 0) {
                return;
            }
            const Token token = take();
            depth += token.raw == "{" ? 1 : 0;
            if (token.name == "bin") {
                takeBinary(token);
            }
        }
    }

    /// Behind a character by number (\u) stand as many others as \uc says, for readers that know no numbers. The suite leaves
    /// out so many of what follows in the group, and in groups within it, an instruction too.
    void countSubstitutes(const Token& token) {
        Substitutes here = substitutes_.here();
        if (token.raw == "{") {
            substitutes_.open();
            return;
        }
        if (token.raw == "}") {
            substitutes_.close();
            return;
        }
        if (token.name == "u") {
            here.awaited = here.perCharacter;
        } else if (token.raw.starts_with("\\uc") && token.raw.size() > 3 && isDigit(token.raw[3])) {
            here.perCharacter = static_cast<int>(std::min<std::int64_t>(token.number, kMostSubstitutes));
        } else if (token.raw == "\\'" && here.awaited > 0) {
            ++here.awaited;  // one character, and two digits come
        } else if (token.raw.front() != '\\' && here.awaited > 0) {
            const auto isCounted = [](char c) { return c != '\r' && c != '\n'; };
            const auto count = std::count_if(token.raw.begin(), token.raw.end(), isCounted);
            here.awaited = static_cast<int>(std::max<std::int64_t>(0, here.awaited - count));
        }
        substitutes_.set(here);
    }

    /// Looks for the first word of the instruction behind nothing but formatting. A word that is put together from pieces or
    /// escapes is none that an honest program writes.
    bool isHarmlessField() const {
        if (substitutes_.here().awaited != 0) {
            return false;  // its beginning is not what counts
        }
        std::string_view ahead = rest_;
        while (!ahead.empty()) {
            const Token token = readToken(ahead);
            if (isOneOf(token.name, kCharacterFormatting) || token.raw == "{") {
                ahead.remove_prefix(token.raw.size());
                continue;
            }
            const std::size_t start = token.raw.find_first_not_of(" \r\n");
            if (start == std::string_view::npos) {
                ahead.remove_prefix(token.raw.size());
                continue;
            }
            const std::string_view text = token.raw.substr(start);
            const auto end = std::find_if_not(text.begin(), text.end(), isLetter);
            std::string word(text.begin(), end);
            std::transform(word.begin(), word.end(), word.begin(), [](char c) { return static_cast<char>(c & ~0x20); });
            return end != text.end() && *end == ' ' && isOneOf(word, kHarmlessFields);
        }
        return false;
    }

    bool isDropped(const Token& token) const {
        return isOneOf(token.name, kDroppedGroups) || (token.name == "fldinst" && !isHarmlessField()) ||
               (token.name == "pict" && pictures_ == RtfPictures::kDropped);
    }

    std::string_view rest_;
    PageSetup setup_;
    RtfPictures pictures_;
    bool isDoubleByte_ = false;
    bool isBullet_ = false;  // the text of a bullet begins here
    GroupedSubstitutes substitutes_;
    std::string out_;
};

}  // namespace

std::string guardRtf(std::string_view rtf, const PageSetup& setup, RtfPictures pictures) {
    return Guard(rtf, setup, pictures).run();
}

}  // namespace ternview
