// Code pages as Windows knows them. iconv tells once for each page what its bytes mean; after that, tables convert.
#include <iconv.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "ternbase/last_error.h"
#include "ternbase/macintosh_pages.h"
#include "ternbase/utf.h"
#include "ternbase/windows.h"

namespace {

constexpr std::uint32_t kAnsiCodePage = 1252;
constexpr char16_t kKatakanaMiddleDot = 0x30FB;

// What is known of the pages before iconv is asked.

struct ByteRange {
    unsigned char first;
    unsigned char last;
};

constexpr ByteRange kNoBytes = {1, 0};

/** Exactly one of `converter` and `upperHalf` is set. Bytes in `leads` begin two-byte characters. */
struct CodePageSource {
    std::uint32_t codePage;
    const char* converter;
    const char16_t* upperHalf = nullptr;
    std::array<ByteRange, 3> leads = {kNoBytes, kNoBytes, kNoBytes};
};

constexpr std::array<ByteRange, 3> kShiftJisLeads = {{{0x81, 0x9F}, {0xE0, 0xFC}, kNoBytes}};
constexpr std::array<ByteRange, 3> kWideLeads = {{{0x81, 0xFE}, kNoBytes, kNoBytes}};
constexpr std::array<ByteRange, 3> kJohabLeads = {{{0x84, 0xD3}, {0xD8, 0xDE}, {0xE0, 0xF9}}};
constexpr std::array<ByteRange, 3> kMacintoshLeads = {{{0xA1, 0xFC}, kNoBytes, kNoBytes}};
constexpr std::array<ByteRange, 3> kMacintoshKoreanLeads = {{{0xA1, 0xFE}, kNoBytes, kNoBytes}};

constexpr std::array kSources = {
    CodePageSource{437, "CP437"},
    CodePageSource{708, "ISO-8859-6"},
    CodePageSource{737, "CP737"},
    CodePageSource{775, "CP775"},
    CodePageSource{850, "CP850"},
    CodePageSource{852, "CP852"},
    CodePageSource{855, "CP855"},
    CodePageSource{857, "CP857"},
    CodePageSource{858, "IBM858"},
    CodePageSource{860, "CP860"},
    CodePageSource{861, "CP861"},
    CodePageSource{862, "CP862"},
    CodePageSource{863, "CP863"},
    CodePageSource{864, "CP864"},
    CodePageSource{865, "CP865"},
    CodePageSource{866, "CP866"},
    CodePageSource{869, "CP869"},
    CodePageSource{874, "CP874"},
    CodePageSource{932, "CP932", nullptr, kShiftJisLeads},
    CodePageSource{936, "CP936", nullptr, kWideLeads},
    CodePageSource{949, "UHC", nullptr, kWideLeads},
    CodePageSource{950, "CP950", nullptr, kWideLeads},
    CodePageSource{1250, "CP1250"},
    CodePageSource{1251, "CP1251"},
    CodePageSource{1252, "CP1252"},
    CodePageSource{1253, "CP1253"},
    CodePageSource{1254, "CP1254"},
    CodePageSource{1255, "CP1255"},
    CodePageSource{1256, "CP1256"},
    CodePageSource{1257, "CP1257"},
    CodePageSource{1258, "CP1258"},
    CodePageSource{1361, "JOHAB", nullptr, kJohabLeads},
    CodePageSource{10000, "MACINTOSH"},
    CodePageSource{10001, "CP932", nullptr, kShiftJisLeads},
    CodePageSource{10002, "CP950", nullptr, kMacintoshLeads},
    CodePageSource{10003, "EUC-KR", nullptr, kMacintoshKoreanLeads},
    CodePageSource{10004, nullptr, kMacintoshArabic},
    CodePageSource{10005, nullptr, kMacintoshHebrew},
    CodePageSource{10006, nullptr, kMacintoshGreek},
    CodePageSource{10007, "CP10007"},
    CodePageSource{10008, "EUC-CN", nullptr, kMacintoshLeads},
    CodePageSource{10021, nullptr, kMacintoshThai},
    CodePageSource{10029, "MAC-CENTRALEUROPE"},
    CodePageSource{10081, nullptr, kMacintoshTurkish},
    CodePageSource{20866, "KOI8-R"},
    CodePageSource{21866, "KOI8-U"},
    CodePageSource{28591, "ISO-8859-1"},
    CodePageSource{28592, "ISO-8859-2"},
    CodePageSource{28593, "ISO-8859-3"},
    CodePageSource{28594, "ISO-8859-4"},
    CodePageSource{28595, "ISO-8859-5"},
    CodePageSource{28596, "ISO-8859-6"},
    CodePageSource{28597, "ISO-8859-7"},
    CodePageSource{28598, "ISO-8859-8"},
    CodePageSource{28599, "ISO-8859-9"},
    CodePageSource{28603, "ISO-8859-13"},
    CodePageSource{28605, "ISO-8859-15"},
};

constexpr bool LowerPage(const CodePageSource& left, const CodePageSource& right) {
    return left.codePage < right.codePage;
}
static_assert(std::is_sorted(kSources.begin(), kSources.end(), LowerPage));

/** Single bytes that Windows maps otherwise than the converter: `count` bytes from `byte` to as many values from `value`. */
struct SingleByteChange {
    std::uint32_t codePage;
    unsigned char byte;
    unsigned char count;
    char16_t value;
};

// Undefined bytes from 0xA0 up have no control character of their value, and the letter of that value would then convert to
// them: Windows sends them to the private use area, one by one.
constexpr SingleByteChange kSingleByteChanges[] = {
    {857, 0xD5, 1, 0xF8BB},   {857, 0xE7, 1, 0xF8BC},   {857, 0xF2, 1, 0xF8BD},   {874, 0xDB, 4, 0xF8C1},
    {874, 0xFC, 4, 0xF8C5},   {1253, 0xAA, 1, 0xF8F9},  {1253, 0xD2, 1, 0xF8FA},  {1253, 0xFF, 1, 0xF8FB},
    {1255, 0xCA, 1, 0x05BA},  {1255, 0xD9, 7, 0xF88D},  {1255, 0xFB, 2, 0xF894},  {1255, 0xFF, 1, 0xF896},
    {1257, 0xA1, 1, 0xF8FC},  {1257, 0xA5, 1, 0xF8FD},  {10000, 0xC6, 1, 0x2206}, {10000, 0xF0, 1, 0xF8FF},
    {10001, 0x5C, 1, 0x00A5}, {10001, 0x80, 1, 0x005C}, {10001, 0xA0, 1, 0x00A0}, {10001, 0xFD, 1, 0x00A9},
    {10001, 0xFE, 1, 0x2122}, {10001, 0xFF, 1, 0x2026}, {10002, 0x80, 1, 0x005C}, {10002, 0x81, 2, 0xF880},
    {10002, 0xA0, 1, 0x00A0}, {10002, 0xFD, 1, 0x00A9}, {10002, 0xFE, 1, 0x2122}, {10002, 0xFF, 1, 0x2026},
    {10003, 0x80, 1, 0x00A0}, {10003, 0x81, 1, 0x20A9}, {10003, 0x82, 1, 0x2013}, {10003, 0x83, 1, 0x00A9},
    {10003, 0x84, 1, 0xFF3F}, {10003, 0xFF, 1, 0x2026}, {10008, 0x80, 1, 0x00FC}, {10008, 0x81, 2, 0xF880},
    {10008, 0xA0, 1, 0x00A0}, {10008, 0xFD, 1, 0x00A9}, {10008, 0xFE, 1, 0x2122}, {10008, 0xFF, 1, 0x2026},
};

/** A block of user-defined characters, which Windows lays one behind the other into the private use area. */
struct UserDefinedBlock {
    std::uint32_t codePage;
    ByteRange leads;
    std::array<ByteRange, 2> trails;
    char16_t value;
};

constexpr ByteRange kUpperTrails = {0xA1, 0xFE};
constexpr ByteRange kLowerTrails = {0x40, 0x7E};

constexpr UserDefinedBlock kUserDefinedBlocks[] = {
    {936, {0xAA, 0xAF}, {kUpperTrails, kNoBytes}, 0xE000},     {936, {0xF8, 0xFE}, {kUpperTrails, kNoBytes}, 0xE234},
    {936, {0xA1, 0xA7}, {kLowerTrails, {0x80, 0xA0}}, 0xE4C6}, {949, {0xC9, 0xC9}, {kUpperTrails, kNoBytes}, 0xE000},
    {949, {0xFE, 0xFE}, {kUpperTrails, kNoBytes}, 0xE05E},     {950, {0xFA, 0xFE}, {kLowerTrails, kUpperTrails}, 0xE000},
    {950, {0x8E, 0xA0}, {kLowerTrails, kUpperTrails}, 0xE311}, {950, {0x81, 0x8D}, {kLowerTrails, kUpperTrails}, 0xEEB8},
};

// The tables of a page.

/** Bytes to UTF-16 and back; every character of these pages is one unit. */
struct CodePage {
    std::uint32_t number = 0;
    bool doubleByte = false;
    char16_t invalid = u'?';             // stands for a sequence that means nothing
    std::array<bool, 256> lead{};        // begins a two-byte character
    std::array<bool, 256> undefined{};   // a single byte without meaning in a double-byte page
    std::array<char16_t, 256> single{};  // characters of single bytes
    std::vector<char16_t> pairs;         // characters of two bytes at PairIndex, 0 where there is none
    std::vector<std::uint16_t> reverse;  // bytes of each character, 0 where there are none
};

// Johab's second bytes begin lowest.
constexpr unsigned kLowestTrail = 0x31;

std::size_t PairIndex(unsigned lead, unsigned trail) {
    return (lead - 0x80) * std::size_t{256} + trail;
}

/** Asks iconv for the meaning of one byte sequence at a time. */
class Converter {
public:
    explicit Converter(const char* name) : m_descriptor(iconv_open("UTF-16LE", name)) {}
    ~Converter() {
        if (valid()) {
            iconv_close(m_descriptor);
        }
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    // POSIX gives the error as a pointer made of -1.  NOLINTNEXTLINE(performance-no-int-to-ptr)
    bool valid() const { return m_descriptor != reinterpret_cast<iconv_t>(-1); }

    /** Gives the character, or 0 when the sequence is not exactly one unit's character. */
    char16_t decode(std::array<unsigned char, 2> bytes, std::size_t count) const {
        char in[2] = {static_cast<char>(bytes[0]), static_cast<char>(bytes[1])};
        unsigned char out[16];
        char* source = in;
        char* target = reinterpret_cast<char*>(out);
        std::size_t sourceLeft = count;
        std::size_t targetLeft = sizeof out;
        iconv(m_descriptor, nullptr, nullptr, nullptr, nullptr);
        if (iconv(m_descriptor, &source, &sourceLeft, &target, &targetLeft) == static_cast<std::size_t>(-1)) {
            return 0;
        }
        // The converters of 1255 and 1258 hold a letter back until they know that no mark follows.
        iconv(m_descriptor, nullptr, nullptr, &target, &targetLeft);
        return sizeof out - targetLeft == 2 ? static_cast<char16_t>(out[0] | out[1] << 8) : char16_t{0};
    }

private:
    iconv_t m_descriptor;
};

void MarkLeads(const CodePageSource& source, CodePage& page) {
    for (const ByteRange& range : source.leads) {
        for (unsigned byte = range.first; byte <= range.last; ++byte) {
            page.lead[byte] = true;
            page.doubleByte = true;
        }
    }
}

/**
 * The lower half is ASCII whatever the converter says: some make 0x5C a currency sign. An undefined byte keeps its value, which
 * is a control character up to 0x9F; in a double-byte page those above are no sequence at all.
 */
void FillSingleBytes(const CodePageSource& source, const Converter* converter, CodePage& page) {
    for (unsigned byte = 0; byte < 256; ++byte) {
        char16_t value = static_cast<char16_t>(byte);
        if (byte >= 0x80 && !page.lead[byte]) {
            value = converter ? converter->decode({static_cast<unsigned char>(byte), 0}, 1) : source.upperHalf[byte - 0x80];
            page.undefined[byte] = value == 0 && page.doubleByte && byte >= 0xA0;
            if (value == 0) {
                value = static_cast<char16_t>(byte);
            }
        }
        page.single[byte] = value;
    }
    for (const SingleByteChange& change : kSingleByteChanges) {
        for (unsigned i = 0; change.codePage == source.codePage && i < change.count; ++i) {
            page.single[change.byte + i] = static_cast<char16_t>(change.value + i);
            page.undefined[change.byte + i] = false;
        }
    }
}

void FillPairs(const CodePageSource& source, const Converter& converter, CodePage& page) {
    page.pairs.resize(128 * 256);
    for (unsigned lead = 0x80; lead < 256; ++lead) {
        for (unsigned trail = kLowestTrail; page.lead[lead] && trail < 256; ++trail) {
            page.pairs[PairIndex(lead, trail)] =
                converter.decode({static_cast<unsigned char>(lead), static_cast<unsigned char>(trail)}, 2);
        }
    }
    for (const UserDefinedBlock& block : kUserDefinedBlocks) {
        if (block.codePage != source.codePage) {
            continue;
        }
        char16_t value = block.value;
        for (unsigned lead = block.leads.first; lead <= block.leads.last; ++lead) {
            for (const ByteRange& trails : block.trails) {
                for (unsigned trail = trails.first; trail <= trails.last; ++trail, ++value) {
                    char16_t& cell = page.pairs[PairIndex(lead, trail)];
                    cell = cell != 0 ? cell : value;
                }
            }
        }
    }
}

/** Of several codes for one character the first one stands, but NEC's copies of the IBM extensions come behind these. */
void FillReverse(CodePage& page) {
    page.reverse.resize(0x10000);
    const auto add = [&page](char16_t value, unsigned code) {
        if (value != 0 && page.reverse[value] == 0) {
            page.reverse[value] = static_cast<std::uint16_t>(code);
        }
    };
    for (unsigned byte = 0; byte < 256; ++byte) {
        if (!page.lead[byte] && !page.undefined[byte]) {
            add(page.single[byte], byte);
        }
    }
    if (!page.doubleByte) {
        return;
    }
    const auto addRow = [&](unsigned lead) {
        for (unsigned trail = 0; trail < 256; ++trail) {
            add(page.pairs[PairIndex(lead, trail)], lead << 8 | trail);
        }
    };
    const auto isCopy = [&page](unsigned lead) { return page.number == 932 && (lead == 0xED || lead == 0xEE); };
    for (const bool copies : {false, true}) {
        for (unsigned lead = 0x80; lead < 256; ++lead) {
            if (isCopy(lead) == copies) {
                addRow(lead);
            }
        }
    }
    // Big5 has two numerals twice, and Windows takes their place among the ideographs.
    if (page.number == 950) {
        page.reverse[0x5341] = 0xA451;
        page.reverse[0x5345] = 0xA4CA;
    }
}

/** Null when iconv cannot open the converter: it is not installed, or there are no file descriptors left just now. */
std::unique_ptr<const CodePage> BuildCodePage(const CodePageSource& source) {
    auto page = std::make_unique<CodePage>();
    page->number = source.codePage;
    page->invalid = source.codePage == 932 ? kKatakanaMiddleDot : u'?';
    MarkLeads(source, *page);
    if (source.upperHalf) {
        FillSingleBytes(source, nullptr, *page);
    } else {
        const Converter converter(source.converter);
        if (!converter.valid()) {
            return nullptr;
        }
        FillSingleBytes(source, &converter, *page);
        if (page->doubleByte) {
            FillPairs(source, converter, *page);
        }
    }
    FillReverse(*page);
    return page;
}

/** The page's tables, built at its first use and kept; null for an unknown page. Throws std::bad_alloc. */
const CodePage* FindCodePage(std::uint32_t codePage) {
    struct Slot {
        std::atomic<const CodePage*> ready{nullptr};
        std::unique_ptr<const CodePage> owner;
    };
    static std::array<Slot, kSources.size()> slots;
    static std::mutex building;

    const auto source = std::lower_bound(kSources.begin(), kSources.end(), CodePageSource{codePage, nullptr}, LowerPage);
    if (source == kSources.end() || source->codePage != codePage) {
        return nullptr;
    }
    Slot& slot = slots[static_cast<std::size_t>(source - kSources.begin())];
    if (const CodePage* page = slot.ready.load(std::memory_order_acquire)) {
        return page;
    }
    const std::lock_guard lock(building);
    if (!slot.owner) {
        slot.owner = BuildCodePage(*source);
        slot.ready.store(slot.owner.get(), std::memory_order_release);
    }
    return slot.owner.get();
}

// Conversion.

/** Counts what is put into it and keeps what fits; without capacity it only counts. */
template <typename Unit>
class Output {
public:
    Output(Unit* out, int capacity) : m_out(out), m_capacity(static_cast<std::size_t>(capacity)) {}

    void put(Unit unit) {
        if (m_count < m_capacity) {
            m_out[m_count] = unit;
        }
        ++m_count;
    }

    /** The units written or needed; 0 when they do not fit, or their count is no int. */
    int finish() const {
        if ((m_capacity != 0 && m_count > m_capacity) || m_count > INT_MAX) {
            TbSetLastError(kErrorInsufficientBuffer);
            return 0;
        }
        return static_cast<int>(m_count);
    }

private:
    Unit* m_out;
    std::size_t m_capacity;
    std::size_t m_count = 0;
};

using WideOutput = Output<char16_t>;
using ByteOutput = Output<char>;

struct Bytes {
    const unsigned char* data;
    std::size_t count;
};

struct Wide {
    const char16_t* data;
    std::size_t count;
};

void DecodeSymbol(Bytes text, WideOutput& out) {
    for (std::size_t i = 0; i < text.count; ++i) {
        const unsigned byte = text.data[i];
        out.put(static_cast<char16_t>(byte < 0x20 ? byte : 0xF000 + byte));
    }
}

void DecodeUtf8(Bytes text, WideOutput& out) {
    const char* position = reinterpret_cast<const char*>(text.data);
    const char* const end = position + text.count;
    while (position != end) {
        const char32_t character = ternbase::takeUtf8(position, end);
        char16_t units[2];
        const std::size_t count =
            ternbase::putUtf16(character != ternbase::kInvalidUtf8 ? character : ternbase::kReplacementCharacter, units);
        for (std::size_t i = 0; i < count; ++i) {
            out.put(units[i]);
        }
    }
}

/** As on Windows, a lead byte takes the byte behind it along even if the two mean nothing, unless that is a NUL. */
void DecodeTables(const CodePage& page, Bytes text, WideOutput& out) {
    for (std::size_t i = 0; i < text.count; ++i) {
        const unsigned char byte = text.data[i];
        if (!page.lead[byte]) {
            out.put(page.undefined[byte] ? page.invalid : page.single[byte]);
        } else if (i + 1 == text.count || text.data[i + 1] == 0) {
            out.put(page.invalid);
        } else {
            const char16_t value = page.pairs[PairIndex(byte, text.data[++i])];
            out.put(value != 0 ? value : page.invalid);
        }
    }
}

void EncodeUtf8(Wide text, ByteOutput& out) {
    const char16_t* position = text.data;
    const char16_t* const end = position + text.count;
    while (position != end) {
        char bytes[4];
        const std::size_t count = ternbase::putUtf8(ternbase::takeUtf16(position, end), bytes);
        for (std::size_t i = 0; i < count; ++i) {
            out.put(bytes[i]);
        }
    }
}

/** The bytes for a character that a page lacks: one character of the page. */
struct DefaultCharacter {
    char bytes[2];
    unsigned count;
    bool used = false;

    void put(ByteOutput& out) {
        for (unsigned i = 0; i < count; ++i) {
            out.put(bytes[i]);
        }
        used = true;
    }
};

DefaultCharacter ReadDefaultCharacter(const CodePage* page, const char* text) {
    const char* bytes = text ? text : "?";
    const bool pair = page && page->lead[static_cast<unsigned char>(bytes[0])] && bytes[1] != 0;
    return {{bytes[0], pair ? bytes[1] : '\0'}, pair ? 2U : 1U};
}

void EncodeSymbol(Wide text, DefaultCharacter& lacking, ByteOutput& out) {
    for (std::size_t i = 0; i < text.count; ++i) {
        const char16_t unit = text.data[i];
        if (unit < 0x20 || (unit >= 0xF020 && unit <= 0xF0FF)) {
            out.put(static_cast<char>(unit & 0xFF));
        } else {
            lacking.put(out);
        }
    }
}

void EncodeTables(const CodePage& page, Wide text, DefaultCharacter& lacking, ByteOutput& out) {
    for (std::size_t i = 0; i < text.count; ++i) {
        const char16_t unit = text.data[i];
        const unsigned code = page.reverse[unit];
        if (code == 0 && unit != 0) {
            lacking.put(out);
            continue;
        }
        if (code > 0xFF) {
            out.put(static_cast<char>(code >> 8));
        }
        out.put(static_cast<char>(code & 0xFF));
    }
}

int Fail(std::uint32_t error) {
    TbSetLastError(error);
    return 0;
}

/** Checks what both conversions have in common. Gives 0 or the error. */
template <typename In, typename Out>
std::uint32_t CheckArguments(std::uint32_t flags, const In* text, int count, const Out* out, int capacity) {
    if (flags != 0) {
        return kErrorInvalidFlags;
    }
    const bool noText = !text || count == 0 || count < -1;
    const bool noRoom = capacity < 0 || (capacity > 0 && !out);
    const bool inPlace = static_cast<const void*>(text) == static_cast<const void*>(out);
    return noText || noRoom || inPlace ? kErrorInvalidParameter : 0;
}

/** The tables of a page that has some. Sets the error when it is null. */
const CodePage* TablesOf(std::uint32_t codePage) {
    try {
        const CodePage* page = FindCodePage(codePage == 0 ? GetACP() : codePage);
        if (!page) {
            TbSetLastError(kErrorInvalidParameter);
        }
        return page;
    } catch (const std::bad_alloc&) {
        TbSetLastError(kErrorNotEnoughMemory);
        return nullptr;
    }
}

thread_local std::uint32_t lastError = 0;

}  // namespace

void TbSetLastError(std::uint32_t code) {
    lastError = code;
}

std::uint32_t GetLastError() {
    return lastError;
}

std::uint32_t GetACP() {
    return kAnsiCodePage;
}

int MultiByteToWideChar(std::uint32_t codePage, std::uint32_t flags, const char* text, int count, char16_t* out, int capacity) {
    if (const std::uint32_t error = CheckArguments(flags, text, count, out, capacity)) {
        return Fail(error);
    }
    const Bytes bytes = {reinterpret_cast<const unsigned char*>(text),
                         count == -1 ? std::strlen(text) + 1 : static_cast<std::size_t>(count)};
    WideOutput output(out, capacity);
    if (codePage == kCodePageUtf8) {
        DecodeUtf8(bytes, output);
    } else if (codePage == kCodePageSymbol) {
        DecodeSymbol(bytes, output);
    } else if (const CodePage* page = TablesOf(codePage)) {
        DecodeTables(*page, bytes, output);
    } else {
        return 0;
    }
    return output.finish();
}

int WideCharToMultiByte(std::uint32_t codePage, std::uint32_t flags, const char16_t* text, int count, char* out, int capacity,
                        const char* defaultCharacter, int* usedDefault) {
    if (const std::uint32_t error = CheckArguments(flags, text, count, out, capacity)) {
        return Fail(error);
    }
    // UTF-8 lacks no character, and Windows refuses the question.
    if (codePage == kCodePageUtf8 && (defaultCharacter || usedDefault)) {
        return Fail(kErrorInvalidParameter);
    }
    const Wide wide = {text, count == -1 ? std::char_traits<char16_t>::length(text) + 1 : static_cast<std::size_t>(count)};
    ByteOutput output(out, capacity);
    if (codePage == kCodePageUtf8) {
        EncodeUtf8(wide, output);
        return output.finish();
    }
    const CodePage* page = codePage == kCodePageSymbol ? nullptr : TablesOf(codePage);
    if (!page && codePage != kCodePageSymbol) {
        return 0;
    }
    DefaultCharacter lacking = ReadDefaultCharacter(page, defaultCharacter);
    if (page) {
        EncodeTables(*page, wide, lacking, output);
    } else {
        EncodeSymbol(wide, lacking, output);
    }
    if (usedDefault) {
        *usedDefault = lacking.used ? 1 : 0;
    }
    return output.finish();
}
