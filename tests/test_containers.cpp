// The growable buffers, their accounting, the owned byte string, and the text helpers.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "common/apiutils.h"
#include "internal/ternclasses_.h"
#include "ternbase/ternbase.h"

using namespace ternkit;

namespace {

constexpr std::uint64_t kThreshold = 8'000'000;

/// Limits that hold for one test.
struct Limits {
    explicit Limits(std::uint64_t quota, std::uint64_t block = 512ULL << 20) {
        TbHostSetMemoryQuota(quota);
        TbHostSetBlockLimit(block);
    }
    ~Limits() {
        TbHostSetMemoryQuota(0);
        TbHostSetBlockLimit(512ULL << 20);
    }
    Limits(const Limits&) = delete;
    Limits& operator=(const Limits&) = delete;
};

/// True when nobody holds anything of a quota of that size.
bool QuotaIsFree(std::uint64_t quota) {
    if (TbMemQuota(kTbQuotaReserve, quota, 0) != kOk) {
        return false;
    }
    TbMemQuota(kTbQuotaRelease, quota, 0);
    return true;
}

std::string_view Content(const OwnedBytes& bytes) {
    return {bytes.data, bytes.size};
}

std::string_view operator""_bytes(const char* text, std::size_t size) {
    return {text, size};
}

TEST(Buffer, GrowthStepDoublesAfterEvery21Growths) {
    ByteBuffer buffer;
    for (const std::uint64_t step : {1024U, 2048U, 4096U}) {
        for (unsigned growth = 1; growth <= 21; ++growth) {
            EXPECT_EQ(buffer.growBy, step);
            const std::uint64_t needed = buffer.capacity + 1;
            ASSERT_NE(buffer.reserve(needed), nullptr);
            EXPECT_EQ(buffer.capacity, needed + step);
            ASSERT_NE(buffer.reserve(buffer.capacity), nullptr);  // fits: no growth
            EXPECT_EQ(buffer.growCount, growth % 21);
        }
    }
    EXPECT_EQ(buffer.initialGrowBy, 1024U);
    EXPECT_EQ(ByteBuffer(kLineGrowBy).growBy, 32U);
}

TEST(Buffer, PointersAreZeroedBeyondTheOldCapacity) {
    PointerBuffer buffer;
    EXPECT_EQ(buffer.growBy, 5U);
    char text = 'x';
    char* pointer = &text;
    ASSERT_EQ(buffer.append(&pointer, 1), kOk);
    ASSERT_EQ(buffer.capacity, 6U);
    buffer.data[5] = pointer;  // in the capacity though not in use: growing must not touch it
    ASSERT_NE(buffer.reserve(100), nullptr);
    EXPECT_EQ(buffer.data[0], pointer);
    EXPECT_EQ(buffer.data[5], pointer);
    for (std::uint64_t index = 6; index < buffer.capacity; ++index) {
        ASSERT_EQ(buffer.data[index], nullptr) << index;
    }
}

TEST(Buffer, AppendChecksItsSource) {
    ByteBuffer buffer;
    EXPECT_EQ(buffer.append(nullptr, 0), kOk);
    EXPECT_EQ(buffer.data, nullptr);
    EXPECT_EQ(buffer.append(nullptr, 1), kNullPointer);
    ASSERT_EQ(buffer.append("ab", 2), kOk);
    ASSERT_EQ(buffer.append("cd", 2), kOk);
    EXPECT_EQ(std::string(buffer.data, buffer.size), "abcd");
    buffer.release();
    EXPECT_EQ(buffer.data, nullptr);
    EXPECT_EQ(buffer.size + buffer.capacity, 0U);
}

TEST(Buffer, ABlockOverTheLimitLeavesTheOldStorage) {
    const Limits limits(0, 4096);
    ByteBuffer buffer;
    ASSERT_EQ(buffer.append("kept", 4), kOk);
    const std::string large(5000, 'x');
    EXPECT_EQ(buffer.append(large.data(), large.size()), kNoMemory);
    EXPECT_EQ(buffer.lastError, kNoMemory);
    EXPECT_EQ(std::string(buffer.data, buffer.size), "kept");
    WideBuffer wide;
    EXPECT_EQ(wide.reserve(2048), nullptr) << "the limit counts bytes, not elements";
    EXPECT_NE(wide.reserve(1000), nullptr);
    EXPECT_EQ(buffer.reserve(~std::uint64_t{0} - 100), nullptr) << "a size that overflows";
    EXPECT_EQ(wide.reserve((~std::uint64_t{0} >> 1) - 100), nullptr) << "a size that overflows in bytes";
}

TEST(Account, TheKernelHearsOfABufferOverTheThresholdOnly) {
    const Limits limits(1);  // every reservation is refused
    ByteBuffer buffer;
    ASSERT_NE(buffer.reserve(kThreshold - 1024), nullptr);
    EXPECT_EQ(buffer.capacity, kThreshold);
    EXPECT_EQ(buffer.account.accounted, kThreshold);
    EXPECT_EQ(buffer.account.registered, 0U);
    WideBuffer wide;
    ASSERT_NE(wide.reserve(kThreshold / 2 - 1024), nullptr);
    EXPECT_EQ(wide.reserve(kThreshold / 2 + 1), nullptr);
}

TEST(Account, PassingTheThresholdReservesEverythingAtOnce) {
    ByteBuffer buffer;
    const Limits limits(kThreshold);
    buffer.size = 7;
    EXPECT_EQ(buffer.reserve(kThreshold - 1023), nullptr);
    EXPECT_EQ(buffer.lastError, kNoMemory);
    EXPECT_EQ(buffer.data, nullptr) << "a refusal destroys the storage";
    EXPECT_EQ(buffer.capacity, 0U);
    EXPECT_EQ(buffer.size, 7U);
    EXPECT_TRUE(QuotaIsFree(kThreshold));

    TbHostSetMemoryQuota(kThreshold + 1);
    ASSERT_NE(buffer.reserve(kThreshold - 1023), nullptr);
    EXPECT_EQ(buffer.account.registered, 1U);
    EXPECT_EQ(TbMemQuota(kTbQuotaReserve, 1, 0), kNoMemory) << "all of it is reserved";
    EXPECT_EQ(buffer.reserve(kThreshold + 100), nullptr) << "the difference is refused";
    buffer.release();
    EXPECT_EQ(buffer.account.accounted, 0U);
    EXPECT_EQ(buffer.account.registered, 1U);
    EXPECT_TRUE(QuotaIsFree(kThreshold + 1));
}

TEST(Account, UpdateReservesAndReleasesDifferences) {
    const Limits limits(10'000'000);
    MemoryAccount account;
    EXPECT_EQ(account.update(kThreshold), kOk);
    EXPECT_TRUE(QuotaIsFree(10'000'000));
    EXPECT_EQ(account.update(9'000'000), kOk);
    EXPECT_TRUE(QuotaIsFree(1'000'000));
    EXPECT_FALSE(QuotaIsFree(1'000'001));
    EXPECT_EQ(account.update(11'000'000), kNoMemory);
    EXPECT_EQ(account.accounted, 9'000'000U);
    EXPECT_EQ(account.update(100), kOk);
    EXPECT_EQ(account.update(300), kOk) << "small, but registered";
    EXPECT_FALSE(QuotaIsFree(10'000'000 - 299));
    EXPECT_EQ(account.update(0), kOk);
    EXPECT_TRUE(QuotaIsFree(10'000'000));
}

TEST(Account, GivingTheStorageAwayClosesIt) {
    const Limits limits(9'000'000);
    ByteBuffer buffer;
    ASSERT_NE(buffer.reserve(kThreshold), nullptr);
    buffer.data[0] = 'x';
    buffer.size = 1;
    OwnedBytes bytes;
    ASSERT_EQ(bytes.appendText("old", -1), kOk);
    bytes.take(buffer);
    EXPECT_EQ(Content(bytes), "x");
    EXPECT_EQ(buffer.data, nullptr);
    EXPECT_EQ(buffer.size + buffer.capacity, 0U);
    EXPECT_TRUE(QuotaIsFree(9'000'000));
}

TEST(TextBuilder, OnceFailedItStaysFailed) {
    TextBuilder text(kLineGrowBy);
    ASSERT_EQ(text.appendFormatted("cid:%s", "a@b"), 1);
    ASSERT_EQ(text.appendFormatted("%d", 42), 1);
    EXPECT_STREQ(text.data, "cid:a@b42");
    EXPECT_EQ(text.size, 9U);
    {
        const Limits limits(0, 64);
        EXPECT_EQ(text.appendFormatted("%100d", 1), 0);
    }
    EXPECT_EQ(text.ok, 0U);
    EXPECT_EQ(text.appendFormatted("x"), 0);
    TextBuilder other;
    const char* volatile none = nullptr;
    EXPECT_EQ(other.appendFormatted(none, 1), 0);
}

TEST(OwnedBytes, AppendedTextKeepsOneNul) {
    OwnedBytes bytes;
    EXPECT_EQ(bytes.textLength(), 0U);
    ASSERT_EQ(bytes.appendText("", 0), kOk);
    EXPECT_EQ(Content(bytes), "\0"_bytes);
    EXPECT_EQ(bytes.textLength(), 0U);
    ASSERT_EQ(bytes.appendText("abc", -1), kOk);
    EXPECT_EQ(Content(bytes), "abc\0"_bytes);
    ASSERT_EQ(bytes.appendText("de\0", 3), kOk);
    EXPECT_EQ(Content(bytes), "abcde\0"_bytes) << "the source's own NUL is enough";
    ASSERT_EQ(bytes.appendText("f\0g", 3), kOk);
    EXPECT_EQ(Content(bytes), "abcdef\0g\0"_bytes);
    bytes.clear();
    EXPECT_EQ(bytes.data, nullptr);
    EXPECT_EQ(bytes.size, 0U);
}

TEST(OwnedBytes, InsertAndReplace) {
    OwnedBytes bytes;
    ASSERT_EQ(bytes.insert(0, "world", 5), kOk);
    ASSERT_EQ(bytes.insert(0, "hello ", 6), kOk);
    EXPECT_EQ(Content(bytes), "hello world");
    ASSERT_EQ(bytes.insert(13, "!", 1), kOk) << "behind the end: the size is the offset and the count";
    EXPECT_EQ(bytes.size, 14U);
    EXPECT_EQ(bytes.data[13], '!');
    ASSERT_EQ(bytes.insert(2, nullptr, 3), kOk) << "a gap only";
    EXPECT_EQ(Content(bytes).substr(5, 9), "llo world");

    bytes.clear();
    ASSERT_EQ(bytes.appendText("0123456789", 10), kOk);
    ASSERT_EQ(bytes.replaceRange(2, 3, "abcdef", 6), kOk);
    EXPECT_EQ(Content(bytes), "01abcdef56789\0"_bytes);
    ASSERT_EQ(bytes.replaceRange(2, 6, "", 0), kOk);
    EXPECT_EQ(Content(bytes), "0156789\0"_bytes);
    ASSERT_EQ(bytes.replaceRange(5, 3, "z", 1), kOk);
    EXPECT_EQ(Content(bytes), "01567z");
    ASSERT_EQ(bytes.ensure(100), kOk);
    EXPECT_EQ(Content(bytes).substr(0, 6), "01567z");

    const Limits limits(0, 50);
    const std::string large(60, 'x');
    EXPECT_EQ(bytes.appendText(large.data(), 60), kNoMemory);
    EXPECT_EQ(bytes.insert(0, large.data(), 60), kNoMemory);
    EXPECT_EQ(bytes.replaceRange(0, 1, large.data(), 60), 0);
}

TEST(TextHelpers, SearchWithoutRegardToCase) {
    struct {
        const char* text;
        const char* needle;
        int offset;  // -1: none
    } const cases[] = {{"xxBOUNDARY=1", "boundary=", 2},
                       {"bBBoundary=", "BOUNDARY=", 2},
                       {"boundar", "boundary", -1},
                       {"aab", "AB", 1},
                       {"=?x", "=?", 0},
                       {"cC:cc:", "cc:", 0},
                       {"", "a", -1},
                       {"[x{x", "{X", 2} /* no letters */};
    for (const auto& item : cases) {
        SCOPED_TRACE(item.text);
        const std::string_view text = item.text;
        const char* end = text.data() + text.size();
        const char* expected = item.offset < 0 ? nullptr : text.data() + item.offset;
        EXPECT_EQ(FindNoCaseInRange(text.data(), end, item.needle), expected);
        EXPECT_EQ(FindNoCaseCounted(text.data(), item.needle, text.size(), std::string_view(item.needle).size()), expected);
    }
    const std::string_view text = "abc";
    EXPECT_EQ(FindNoCaseInRange(text.data(), text.data() + 3, nullptr), nullptr);
    EXPECT_EQ(FindNoCaseInRange(text.data(), text.data() + 2, "bc"), nullptr) << "the range ends before the text does";
    EXPECT_EQ(FindNoCaseCounted(text.data(), "", 3, 0), nullptr);
}

TEST(TextHelpers, CopiesAndConversions) {
    const std::string_view text = "Gr\xC3\xBC\xC3\x9F\x65 \xF0\x9F\x93\xA7!";
    const ScopedBlock copy = CopyRange(text.data(), text.data() + 4);
    EXPECT_STREQ(copy.bytes(), "Gr\xC3\xBC");
    const ScopedBlock wide = WideFromUtf8String(text.data());
    ASSERT_TRUE(wide);
    EXPECT_EQ(std::u16string(wide.wide()), u"Gr\u00FC\u00DFe \U0001F4E7!");
    const ScopedBlock narrow = Utf8FromWideString(wide.wide());
    EXPECT_STREQ(narrow.bytes(), text.data());
    EXPECT_FALSE(WideFromUtf8String("\xC3("));
}

}  // namespace
