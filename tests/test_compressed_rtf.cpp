// Compressed RTF on the path of stores and on that of items: what passes, what comes out, and what damage does.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <utility>

#include "fileformats/pst/common/compressedrtf.h"
#include "rtf_compressor.h"
#include "ternbase/ternbase.h"

TB_SOURCE(u"tests/test_compressed_rtf")

using namespace std::string_literals;
using ternkit::Status;

namespace {

constexpr char kOldBody[] = "<html>";

struct Expanded {
    Status status;
    std::string body;
};

bool operator==(const Expanded& one, const Expanded& other) {
    return one.status == other.status && one.body == other.body;
}

std::ostream& operator<<(std::ostream& out, const Expanded& expanded) {
    return out << expanded.status << " " << testing::PrintToString(expanded.body);
}

OwnedBytes Owned(std::string_view bytes) {
    OwnedBytes owned;
    owned.ensure(bytes.size());
    std::memcpy(owned.data, bytes.data(), bytes.size());
    return owned;
}

ScopedBlock BlockOf(std::string_view bytes) {
    ScopedBlock block(TbMemAlloc(bytes.size(), 1, TB_HERE));
    std::memcpy(block.block, bytes.data(), bytes.size());
    return block;
}

std::string Text(const OwnedBytes& bytes) {
    return std::string(bytes.data, bytes.size);
}

/** The store's path, over a record that holds an HTML body already. The check of the block must tell the same status. */
Expanded Store(std::string_view block) {
    MessageRecord record;
    record.body.appendText(kOldBody, -1);
    const OwnedBytes owned = Owned(block);
    const Status status = ExpandStoreRtf(owned, record);
    EXPECT_EQ(CheckStoreRtf(owned), status);
    return {status, Text(record.body)};
}

Expanded Item(std::string_view block) {
    MessageRecord record;
    record.body.size = 5;  // the reader of items leaves the block's size here
    const Status status = DecodeMsgRtf(BlockOf(block), record, block.size());
    return {status, status == ternkit::kOk ? Text(record.body) : ""};
}

const Expanded kRefusedByStore = {ternkit::kUnusable, std::string(kOldBody) + '\0'};
const Expanded kRefusedByItem = {ternkit::kUnusable, ""};

/** Text of a document as mail clients write it, with runs, distant repetitions and bytes of any value. */
std::string LongText(std::size_t size) {
    std::mt19937 random(7);
    std::string text = "{\\rtf1\\ansi\\deff0{\\fonttbl{\\f0\\fswiss Arial;}}\r\n";
    while (text.size() < size) {
        switch (random() % 4) {
            case 0:
                text += "\\par \\pard\\plain\\f0\\fs20 A tern came by on day " + std::to_string(random() % 500) + ".";
                break;
            case 1:
                text += std::string(random() % 40, static_cast<char>(random()));
                break;
            case 2:
                text += static_cast<char>(random());
                break;
            default: {
                const std::size_t length = random() % 30;
                text += text.substr(random() % text.size(), length);
            }
        }
    }
    return text.substr(0, size);
}

// The two examples of [MS-OXRTFCP], section 4.
constexpr std::string_view kHelloBlock(
    "\x2D\0\0\0\x2B\0\0\0LZFu\xF1\xC5\xC7\xA7\x03\x00\x0A\x00rcpg125\x42\x32\x0A\xF3 hel\x09\x00 bw\x05\xB0ld}\x0A\x80\x0F\xA0",
    49);
constexpr std::string_view kOverlapBlock("\x1A\0\0\0\x1C\0\0\0LZFu\xE2\xD4\x4B\x51\x41\x00\x04 WXYZ\x0D\x6E}\x01\x0E\xB0", 30);

TEST(CompressedRtf, ExamplesOfTheFormatDocument) {
    // The line end comes out of the dictionary's preload, where its two bytes stand the other way round.
    const std::string hello = "{\\rtf1\\ansi\\ansicpg1252\\pard hello world}\n\r";
    EXPECT_EQ(Store(kHelloBlock), (Expanded{ternkit::kOk, hello}));
    EXPECT_EQ(Item(kHelloBlock), (Expanded{ternkit::kOk, hello + '\0'}));
    EXPECT_EQ(Store(kOverlapBlock), (Expanded{ternkit::kOk, "{\\rtf1 WXYZWXYZWXYZWXYZWXYZ}"}));
}

TEST(CompressedRtf, AnyTextComesBack) {
    for (const std::size_t size : {1U, 16U, 17U, 136U, 3889U, 3890U, 4096U, 8191U, 300'000U}) {
        const std::string text = LongText(size);
        const std::string block = rtf::Compressed(text);
        EXPECT_EQ(Store(block), (Expanded{ternkit::kOk, text})) << size;
    }
    const std::string run(20'000, 'x');
    EXPECT_EQ(Store(rtf::Compressed(run)), (Expanded{ternkit::kOk, run}));
}

TEST(CompressedRtf, ReferencesAcrossAMultipleOfTheWindowReachThePreviousOne) {
    // 3885 literals bring the write position to 4092; "abcdefgh" begins there and crosses 4096.
    std::string tokens;
    const std::string text = std::string(3885, '.') + "abcdefgh";
    for (std::size_t at = 0; at < text.size(); ++at) {
        tokens += (at % 8 == 0 ? "\0"s : ""s) + text[at];
    }
    // At 4100: offset 4092 lies in front of the multiple, and offset 3 behind it.
    ASSERT_EQ(text.size() % 8, 5U);
    tokens[tokens.size() - 6] = '\x60';
    tokens += "\xFF\xC6"s + "\x00\x30"s.replace(0, 2, "\x00\x31"s);
    const Expanded expanded = Store(rtf::FromTokens(static_cast<std::uint32_t>(text.size() + 11), tokens));
    EXPECT_EQ(expanded, (Expanded{ternkit::kOk, text + "abcdefgh" + "hab"}));
}

TEST(CompressedRtf, TheLongestReferenceCopies17Bytes) {
    EXPECT_EQ(Store(rtf::FromTokens(17, "\x01\x00\x0F"s)), (Expanded{ternkit::kOk, "{\\rtf1\\ansi\\mac\\d"}));
}

TEST(CompressedRtf, EmptyBlocksGiveEmptyText) {
    EXPECT_EQ(Store(rtf::FromTokens(0, "")), (Expanded{ternkit::kOk, ""}));
    EXPECT_EQ(Store(rtf::FromTokens(0,
                                    "\x00"
                                    "abc"s)),
              (Expanded{ternkit::kOk, ""}));
    EXPECT_EQ(Item(rtf::FromTokens(0, "")), (Expanded{ternkit::kOk, "\0"s}));
    EXPECT_EQ(Store(rtf::Stored("")), (Expanded{ternkit::kOk, "\0"s}));
    EXPECT_EQ(Item(rtf::Stored("")), (Expanded{ternkit::kOk, "\0"s}));
}

TEST(CompressedRtf, AnItemsTextKeepsItsOwnClosingNul) {
    EXPECT_EQ(Item(rtf::Compressed("abc\0"s)), (Expanded{ternkit::kOk, "abc\0"s}));
    EXPECT_EQ(Store(rtf::Compressed("abc\0"s)), (Expanded{ternkit::kOk, "abc\0"s}));
}

TEST(CompressedRtf, TheCrcOfStoredTextCountsInAStoreOnly) {
    const std::string text = "{\\rtf1 text}";
    EXPECT_EQ(Store(rtf::Stored(text)), kRefusedByStore);
    EXPECT_EQ(Item(rtf::Stored(text)), (Expanded{ternkit::kOk, text + '\0'}));
    const std::string sealed = rtf::Block(rtf::kStored, 3, text, rtf::Crc(text));
    EXPECT_EQ(Store(sealed), (Expanded{ternkit::kOk, text + '\0'}));
    EXPECT_EQ(Item(sealed), (Expanded{ternkit::kOk, "{\\r\0"s}));
}

TEST(CompressedRtf, StoredTextEndsAtANulInAStoreOnly) {
    const std::string text = "one\0two"s;
    const std::string block = rtf::Block(rtf::kStored, 0xFFFFFFFF, text, rtf::Crc(text));
    EXPECT_EQ(Store(block), (Expanded{ternkit::kOk, "one\0"s}));
    EXPECT_EQ(Item(block), (Expanded{ternkit::kOk, text + '\0'}));
}

TEST(CompressedRtf, HeaderTests) {
    const std::string good = rtf::Compressed("hello");
    const auto damaged = [&](std::size_t offset) {
        std::string block = good;
        block[offset] = static_cast<char>(block[offset] ^ 1);
        return block;
    };
    for (const std::size_t offset : {0U, 3U, 8U, 12U, 15U, 16U}) {
        EXPECT_EQ(Store(damaged(offset)), kRefusedByStore) << offset;
        EXPECT_EQ(Item(damaged(offset)), kRefusedByItem) << offset;
    }
    for (const std::string& block : {good.substr(0, good.size() - 1), good + '\0', good.substr(0, 15), ""s}) {
        EXPECT_EQ(Store(block), kRefusedByStore);
        EXPECT_EQ(Item(block), kRefusedByItem);
    }
    MessageRecord record;
    EXPECT_EQ(DecodeMsgRtf(ScopedBlock(), record, 100), ternkit::kUnusable);
}

TEST(CompressedRtf, TokensThatEndEarlyOrPointOutsideEndTheText) {
    struct Case {
        const char* name;
        std::uint32_t rawSize;
        std::string tokens;
        std::string text;
    };
    const std::string literals =
        "\x00"
        "abcdefgh"s;
    const Case cases[] = {
        {"no flags left", 20, literals, "abcdefgh"},
        {"no literal left", 20, literals + "\x00ij"s, "abcdefghij"},
        {"half a reference", 20, literals + "\x01\x00"s, "abcdefgh"},
        {"no reference left", 20, literals + "\x01"s, "abcdefgh"},
        {"a source before the buffer", 20, literals + "\x01\x0D\x80"s, "abcdefgh"},
        {"a source before the buffer far from the end", 900, literals + "\x02i\x0D\x90"s + std::string(200, '\0'), "abcdefghi"},
        {"a reference past the size", 10, literals + "\x01\x00\x0F"s, "abcdefgh{\\"},
        {"literals past the size", 3, literals, "abc"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Store(rtf::FromTokens(c.rawSize, c.tokens)), (Expanded{ternkit::kOk, c.text})) << c.name;
        EXPECT_EQ(Item(rtf::FromTokens(c.rawSize, c.tokens)), (Expanded{ternkit::kOk, c.text + '\0'})) << c.name;
    }
}

// A few bytes may announce 4 GB; what they can expand to is what must fit.
TEST(CompressedRtf, MemoryFollowsFromTheBlockAndNotFromItsAnnouncement) {
    const std::uint64_t oldLimit = TbMemBlockLimit();
    TbHostSetBlockLimit(4096);
    const Expanded small = Store(rtf::FromTokens(0xFFFFFFFF,
                                                 "\x00"
                                                 "abc"s));
    const Expanded large = Store(rtf::FromTokens(0xFFFFFFFF, std::string(600, '\0')));
    const Expanded stored = Store(rtf::Block(rtf::kStored, 0xFFFFFFFF, "abc", rtf::Crc("abc")));
    TbHostSetBlockLimit(oldLimit);
    EXPECT_EQ(small, (Expanded{ternkit::kOk, "abc"}));
    EXPECT_EQ(large.status, ternkit::kNoMemory);
    EXPECT_EQ(stored, (Expanded{ternkit::kOk, "abc\0"s}));
}

TEST(CompressedRtf, OnlyAnItemsRtfBecomesHtml) {
    const std::string wrapped = "{\\rtf1\\fromhtml1{\\*\\htmltag64 <p>}tern}";
    EXPECT_EQ(Store(rtf::Compressed(wrapped)), (Expanded{ternkit::kOk, wrapped}));
    EXPECT_EQ(Item(rtf::Compressed(wrapped)), (Expanded{ternkit::kOk, "<p>tern\0"s}));
    EXPECT_EQ(Item(rtf::Stored(wrapped)), (Expanded{ternkit::kOk, "<p>tern\0"s}));
}

}  // namespace
