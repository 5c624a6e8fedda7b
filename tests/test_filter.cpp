// The entry points: records, statuses, the two routes of a document, temporary files and their place.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "expected_document.h"
#include "filter_host.h"
#include "mime_builder.h"
#include "ternbase/ternbase.h"
#include "ternbase/windows.h"

using namespace ternkit;
using namespace mime;
namespace fs = std::filesystem;

namespace {

const std::string kPicture(60, '\x89');

std::string HtmlMessage() {
    return Html("<html><body>Hello</body></html>").addressed().bytes();
}

std::string HtmlDocument() {
    return "<html><body>" + kAddressedHtml + "Hello</body></html>";
}

std::string PictureMessage() {
    return Multipart("related", {Html("<body><img src=\"cid:one@x\">"), Picture("a.png", kPicture, "one@x")}).addressed().bytes();
}

std::string PlainMessage() {
    return Plain("Hello").addressed().bytes();
}

class Target final : public TargetObject {
public:
    explicit Target(std::int32_t kind) : m_kind(kind) {}
    std::int32_t addReference() override { return 10; }
    std::int32_t releaseReference() override { return 10; }
    std::int32_t version() override { return 10; }
    std::int32_t kind() override { return m_kind; }

private:
    std::int32_t m_kind;
};

TEST(EntryPoints, NullArguments) {
    EXPECT_EQ(fltInfo(nullptr), kBadArgument);
    EXPECT_EQ(fltLoad(nullptr), kBadArgument);
    EXPECT_EQ(fltFreeData(nullptr, 0), kBadArgument);
    EXPECT_EQ(fltFreeData(nullptr, 1), kBadArgument);
}

TEST(EntryPoints, ForeignDataIsLeftAlone) {
    for (const char* bytes : {"foreign data", "PSTxforeign ", "MSG\0foreign "}) {
        std::vector<char> data(bytes, bytes + 12);
        for (const int keep : {0, 1, -1}) {
            EXPECT_EQ(fltFreeData(data.data(), keep), kOk);
        }
        EXPECT_EQ(std::memcmp(data.data(), bytes, 12), 0);
    }
    std::vector<char> record{'P', 'S', 'T', '\0'};
    EXPECT_EQ(fltFreeData(record.data(), 1), kOk) << "keeping does not look at the data";
}

TEST(EntryPoints, FilesThatAreNoMessage) {
    const std::string message = HtmlMessage();
    for (const std::size_t length : {0U, 1U, 11U}) {
        EXPECT_EQ(Show(message.substr(0, length)).status, kShortRead) << length;
    }
    EXPECT_EQ(Show("Hello World!").status, kUnusable);
    // The first bytes decide, whatever follows.
    EXPECT_LT(Show("!BDN: x\r\n" + PlainMessage()).status, kOk);
    EXPECT_LT(Show("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1\r\n" + PlainMessage()).status, kOk);
    EXPECT_EQ(Show("!BDX: x\r\n" + PlainMessage()).status, kOk);
    EXPECT_EQ(Show("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE2\r\n" + PlainMessage()).status, kOk);
    FilterHost host(message);
    fs::remove(host.root.inputPath());
    EXPECT_EQ(host.load(), kCannotOpen);
    fs::create_directory(host.root.inputPath());
    EXPECT_EQ(host.load(), kCannotOpen);
}

TEST(Routes, OneMessageOnBoth) {
    struct {
        const char* what;
        std::string message;
        Route route;
        const char* suffix;  // of the loader's name
        std::uint32_t format;
        std::string document;
    } const cases[] = {
        {"html", HtmlMessage(), Route::Memory, "FromMemory", kFormatHtml, Closed(HtmlDocument())},
        {"html", HtmlMessage(), Route::TemporaryFiles, "FromFile", kFormatHtml, HtmlDocument()},
        {"plain", PlainMessage(), Route::Memory, "FromMemory", kFormatText, Closed(kAddressedPlain + "Hello")},
        {"plain", PlainMessage(), Route::TemporaryFiles, "FromMemory", kFormatText, Closed(kAddressedPlain + "Hello")},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        FilterHost host(item.message, item.route);
        ASSERT_EQ(host.info(), kOk);
        EXPECT_EQ(host.delivery.loader, std::string("loadInfo") + item.suffix);
        EXPECT_EQ(host.delivery.document, item.document);
        EXPECT_EQ(Value(host.delivery.info.format), item.format);
        EXPECT_EQ(Value(host.fileInfo.format), kFormatEml);
        ASSERT_EQ(host.load(), kOk);
        EXPECT_EQ(host.delivery.loader, std::string("load") + item.suffix);
        EXPECT_EQ(host.delivery.document, item.document);
        EXPECT_EQ(Value(host.delivery.info.format), item.format);
        EXPECT_EQ(Value(host.loadRequest.resultStatus), kOk);
    }
}

TEST(Routes, PlainTextOnlyNamesAnotherFormat) {
    for (const Route route : kBothRoutes) {
        FilterHost host(HtmlMessage(), route);
        host.infoRequest.plainTextOnly = host.loadRequest.plainTextOnly = 1;
        ASSERT_EQ(host.info(), kOk);
        EXPECT_EQ(host.delivery.loader, "loadInfoFromMemory");
        EXPECT_EQ(Value(host.delivery.info.format), kFormatText);
        EXPECT_EQ(host.delivery.document, Closed(HtmlDocument()));
        ASSERT_EQ(host.load(), kOk);
        EXPECT_EQ(host.delivery.loader, "loadFromMemory");
        EXPECT_EQ(Value(host.delivery.info.format), kFormatText);
        EXPECT_EQ(host.delivery.document, Closed(HtmlDocument()));
        host.infoRequest.plainTextOnly = 2;
        ASSERT_EQ(host.info(), kOk);
        EXPECT_EQ(Value(host.delivery.info.format), kFormatHtml);
    }
}

TEST(Routes, TheTargetsKindChoosesTheLoader) {
    Target alternative(10);
    Target ordinary(9);
    int place = 0;
    for (const Route route : kBothRoutes) {
        FilterHost host(HtmlMessage(), route);
        const std::string suffix = route == Route::Memory ? "FromMemory" : "FromFile";
        host.loadRequest.alternativeTarget = &place;
        host.loadRequest.targetObject = &alternative;
        ASSERT_EQ(host.load(), kOk);
        EXPECT_EQ(host.delivery.loader, "alternativeLoad" + suffix);
        EXPECT_EQ(host.delivery.passed, std::vector<const void*>{&place});
        host.loadRequest.targetObject = &ordinary;
        ASSERT_EQ(host.load(), kOk);
        EXPECT_EQ(host.delivery.loader, "load" + suffix);
    }
}

TEST(Records, ArgumentsOfTheLoaders) {
    for (const Route route : kBothRoutes) {
        FilterHost host(HtmlMessage(), route);
        host.options.flags = 4;
        host.options.filterData = &host;
        host.fileInfo.loadFlags = 0xFFFFFFFF;
        host.fileInfo.structSize = 1;
        host.fileInfo.width = 77;
        ASSERT_EQ(host.info(), kOk);
        EXPECT_EQ(host.delivery.numbers, (std::vector<std::uint32_t>{2316, 1}));
        EXPECT_EQ(Value(host.delivery.info.structSize), 2316U);
        EXPECT_EQ(Value(host.delivery.info.loadFlags), 4096U);
        EXPECT_EQ(Value(host.delivery.info.width), 0U) << "a record of the filter's own";

        int bitmap = 0;
        int callback = 0;
        int userData = 0;
        host.loadRequest.bitmap = &bitmap;
        host.loadRequest.callback = &callback;
        host.loadRequest.userData = &userData;
        host.fileInfo.structSize = 1;
        host.fileInfo.loadFlags = 0xFFFFFFFF;
        const HostFileInfo before = host.fileInfo;
        ASSERT_EQ(host.load(), kOk);
        EXPECT_EQ(host.delivery.numbers, (std::vector<std::uint32_t>{284, 24, 1, 32}));
        EXPECT_EQ(host.delivery.passed, (std::vector<const void*>{&bitmap, &callback, &userData}));
        EXPECT_EQ(Value(host.delivery.info.structSize), 2316U);
        EXPECT_EQ(Value(host.delivery.info.loadFlags), 0xFFFFFFFF - 16384);
        EXPECT_EQ(Value(host.delivery.info.pageFlag), 1U) << "a copy of the caller's";
        EXPECT_EQ(std::memcmp(&before, &host.fileInfo, sizeof(before)), 0) << "which stays as it was";

        EXPECT_EQ(Value(host.delivery.options.structSize), 84U);
        EXPECT_EQ(Value(host.delivery.options.pageNumber), 2);
        EXPECT_EQ(Value(host.delivery.options.flags), 4U);
        EXPECT_EQ(Value(host.delivery.options.filterData), &host);
        EXPECT_NE(host.delivery.optionsAddress, &host.options);
        EXPECT_EQ(Value(host.options.pageNumber), 2);
        EXPECT_EQ(Value(host.options.structSize), 0U);
    }
}

TEST(Records, ResultOfInfo) {
    FilterHost host(PlainMessage());
    host.fileInfo.width = 1000;
    host.fileInfo.height = 599;
    host.fileInfo.messageCount = 55;
    host.infoRequest.loaderStatus = 99;
    ASSERT_EQ(host.info(), kOk);
    EXPECT_EQ(Value(host.fileInfo.format), 387U);
    EXPECT_EQ(Value(host.fileInfo.documentFlag), 1U);
    EXPECT_EQ(Value(host.fileInfo.documentUnit), 1U);
    EXPECT_EQ(Value(host.fileInfo.documentWidth), 10.0) << "the caller's old width in whole units of the loader's resolution";
    EXPECT_EQ(Value(host.fileInfo.documentHeight), 4.0);
    EXPECT_EQ(Value(host.fileInfo.pageNumber), 2);
    EXPECT_EQ(Value(host.fileInfo.totalPages), 3U);
    EXPECT_EQ(Value(host.fileInfo.pageFlag), 1U);
    EXPECT_EQ(Value(host.fileInfo.bitsPerPixel), 24U);
    EXPECT_EQ(Value(host.fileInfo.width), 816U);
    EXPECT_EQ(Value(host.fileInfo.height), 1056U);
    EXPECT_EQ(Value(host.fileInfo.xResolution), 96U);
    EXPECT_EQ(Value(host.fileInfo.yResolution), 120U);
    EXPECT_EQ(std::memcmp(host.fileInfo.pageValue, "pagevalu", 8), 0);
    EXPECT_EQ(Value(host.fileInfo.messageCount), 55U) << "written for stores only";
    EXPECT_EQ(Value(host.infoRequest.loaderStatus), 99);
}

TEST(Records, PageAndMessageNumbers) {
    struct {
        std::int32_t asked;
        std::int32_t page;
    } const pages[] = {{INT_MIN, 1}, {-1, 1}, {0, 1}, {1, 1}, {3, 3}, {4, 3}, {INT_MAX, 3}};
    FilterHost host(PlainMessage());
    for (const auto& item : pages) {
        host.options.pageNumber = item.asked;
        ASSERT_EQ(host.info(), kOk);
        EXPECT_EQ(Value(host.fileInfo.pageNumber), item.page) << item.asked;
    }
    for (const std::int32_t number : {1, 0, 7, -3, INT_MAX}) {
        host.infoRequest.messageNumber = host.loadRequest.messageNumber = number;
        ASSERT_EQ(host.info(), kOk) << "a file of one message has no other";
        EXPECT_EQ(Value(host.infoRequest.messageNumber), number - 1);
        EXPECT_EQ(host.load(), kOk);
        EXPECT_EQ(Value(host.loadRequest.messageNumber), number);
    }
    host.infoRequest.messageNumber = host.loadRequest.messageNumber = INT_MIN;
    EXPECT_EQ(host.info(), kOk);
    EXPECT_EQ(host.load(), kOk);
}

TEST(Records, RequestedResolutions) {
    struct {
        std::uint32_t width;
        std::uint32_t requested;
        std::uint32_t expectedWidth;
        std::uint32_t expectedResolution;  // the caller's, which was 11
    } const cases[] = {
        {816, 0, 816, 96},
        {816, 96, 816, 96},
        {816, 300, 2550, 11},
        {817, 50, 426, 11},  // 425.52
        {800, 50, 417, 11},  // 416.67
        {816, 1, 9, 11},     // 8.5 is rounded up
        {20'000'000, 600, 125'000'000, 11},
    };
    for (const auto& item : cases) {
        FilterHost host(PlainMessage());
        host.answer.width = host.answer.height = item.width;
        host.answer.yResolution = 96;
        host.fileInfo.xResolution = host.fileInfo.yResolution = 11;
        host.infoRequest.requestedXResolution = item.requested;
        ASSERT_EQ(host.info(), kOk);
        EXPECT_EQ(Value(host.fileInfo.width), item.expectedWidth);
        EXPECT_EQ(Value(host.fileInfo.xResolution), item.expectedResolution);
        EXPECT_EQ(Value(host.fileInfo.height), item.width) << "each direction for itself";
        host.infoRequest.messageNumber = 1;
        host.infoRequest.requestedXResolution = 0;
        host.infoRequest.requestedYResolution = item.requested;
        host.fileInfo.yResolution = 11;
        ASSERT_EQ(host.info(), kOk);
        EXPECT_EQ(Value(host.fileInfo.height), item.expectedWidth);
        EXPECT_EQ(Value(host.fileInfo.yResolution), item.expectedResolution);
        EXPECT_EQ(Value(host.fileInfo.width), item.width);
    }
    FilterHost host(PlainMessage());
    host.answer.xResolution = host.answer.yResolution = host.answer.totalPages = 0;
    host.infoRequest.requestedXResolution = 300;
    host.info();  // a loader without a resolution must not end the program
}

TEST(Failures, OfTheLoaders) {
    for (const Route route : kBothRoutes) {
        FilterHost host(PictureMessage(), route);
        for (const Status status : {0, -5, 2, 77}) {
            host.answer.status = status;
            host.fileInfo.width = 4711;
            host.infoRequest.messageNumber = 5;
            EXPECT_EQ(host.info(), kLoaderFailed);
            EXPECT_EQ(Value(host.infoRequest.loaderStatus), status);
            EXPECT_EQ(Value(host.fileInfo.width), 4711U);
            EXPECT_EQ(Value(host.infoRequest.messageNumber), 5);
            EXPECT_EQ(host.root.leftovers(), std::vector<std::string>());
            EXPECT_EQ(host.load(), status);
            EXPECT_EQ(host.root.leftovers(), std::vector<std::string>());
        }
    }
}

TEST(Failures, ALoaderThatWritesAnotherFormat) {
    FilterHost host(PictureMessage(), Route::TemporaryFiles);
    host.answer.format = kFormatRtf;
    EXPECT_EQ(host.info(), kOk);
    EXPECT_EQ(Value(host.fileInfo.format), kFormatEml);
    EXPECT_EQ(host.root.leftovers(), std::vector<std::string>());
}

/// Files may grow to a size only, as on a disk that is full.
struct FileSizeLimit {
    explicit FileSizeLimit(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_previous);
        const rlimit limit{bytes, m_previous.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &m_previous);
        std::signal(SIGXFSZ, SIG_DFL);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit m_previous{};
};

TEST(Failures, OfADiskThatIsFull) {
    for (const std::string& message : {HtmlMessage(), PictureMessage()}) {
        FilterHost host(message, Route::TemporaryFiles);
        for (const rlim_t limit : {0U, 59U, 100U}) {  // nothing, not quite the picture, not quite the document
            Status infoStatus = 0;
            Status loadStatus = 0;
            {
                const FileSizeLimit full(limit);
                infoStatus = host.info();
                loadStatus = host.load();
            }
            EXPECT_EQ(infoStatus, kShortWrite);
            EXPECT_EQ(loadStatus, kShortWrite);
            EXPECT_EQ(host.root.leftovers(), std::vector<std::string>());
        }
        EXPECT_EQ(host.load(), kOk);
    }
}

TEST(TemporaryFiles, NamesAndPlaces) {
    FilterHost host(PictureMessage(), Route::TemporaryFiles);
    const auto check = [&] {
        const Delivery& delivery = host.delivery;
        const fs::path document = delivery.documentPath;
        EXPECT_EQ(delivery.directories.size(), 2U);
        const fs::path directory = document.parent_path();
        EXPECT_EQ(directory.parent_path(), host.root.privatePath());
        EXPECT_EQ(directory.filename().string().substr(0, 3), "pst");
        EXPECT_EQ(document.filename().string().substr(0, 3), "pst");
        EXPECT_EQ(document.extension(), ".html");
        EXPECT_EQ(delivery.files, (std::map<std::string, std::string>{{"one@x_a.png", kPicture}}));
    };
    ASSERT_EQ(host.info(), kOk);
    check();
    const std::string first = host.delivery.documentPath;
    EXPECT_EQ(host.root.leftovers(), std::vector<std::string>());
    ASSERT_EQ(host.load(), kOk);
    check();
    EXPECT_NE(host.delivery.documentPath, first);
    EXPECT_EQ(host.root.leftovers(), std::vector<std::string>());

    FilterHost without(HtmlMessage(), Route::TemporaryFiles);
    ASSERT_EQ(without.load(), kOk);
    EXPECT_EQ(fs::path(without.delivery.documentPath).parent_path(), without.root.privatePath());
    struct stat status {};
    ASSERT_EQ(stat(without.root.privatePath().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);

    FilterHost memory(PictureMessage(), Route::Memory);
    ASSERT_EQ(memory.load(), kOk);
    EXPECT_TRUE(memory.delivery.files.empty());
    EXPECT_FALSE(fs::exists(memory.root.privatePath()));
}

TEST(TemporaryFiles, AnUnsafePrivateDirectoryIsPassedOver) {
    FilterHost host(PictureMessage(), Route::TemporaryFiles);
    const std::string elsewhere = host.root.inputPath() + "-elsewhere";
    fs::create_directory(elsewhere);
    fs::permissions(elsewhere, fs::perms::owner_all);
    fs::create_directory_symlink(elsewhere, host.root.privatePath());
    ASSERT_EQ(host.load(), kOk);
    EXPECT_EQ(fs::path(host.delivery.documentPath).string().find(host.root.runtimePath()), std::string::npos);
    EXPECT_TRUE(fs::is_empty(elsewhere));
    EXPECT_FALSE(fs::exists(host.delivery.documentPath)) << "removed at its other place, too";
    fs::remove(host.root.privatePath());
    fs::create_directory(host.root.privatePath());
    fs::permissions(host.root.privatePath(), fs::perms::owner_all | fs::perms::group_read);
    ASSERT_EQ(host.load(), kOk);
    EXPECT_EQ(host.delivery.documentPath.find(host.root.runtimePath()), std::string::npos);
}

TEST(TemporaryFiles, TheModuleCreatesInsideThePrivateDirectoryOnly) {
    const TemporaryRoot root;
    char16_t name[264];
    ASSERT_EQ(TbTempName(nullptr, name, 264, 1, u"pst", nullptr), kOk);
    TbFileDelete(name);
    ASSERT_NE(CreateDirectoryW(name, nullptr), 0);
    EXPECT_EQ(CreateDirectoryW(name, nullptr), 0);
    EXPECT_EQ(GetLastError(), 183U);
    const std::u16string directory = std::u16string(name) + u"\\";
    char buffer[1024];
    ASSERT_NE(TbHostNativePath(directory.c_str(), buffer, sizeof(buffer)), 0U);
    const std::string native = buffer;
    const std::string outside = root.runtimePath() + "/outside";
    fs::create_directory(outside);
    WriteWholeFile(outside + "/file", "kept");
    fs::create_symlink(outside + "/file", native + "link");
    fs::create_symlink(outside + "/new", native + "dangling");
    fs::create_directory_symlink(outside, native + "directory");

    const std::u16string refused[] = {directory + u"link",
                                      directory + u"dangling",
                                      directory + u"directory\\new",
                                      directory + u"directory/file",
                                      directory + u"..\\..\\..\\outside\\file",
                                      directory + u"../x",
                                      directory + u"missing\\x",
                                      directory,
                                      Wide(outside + "/file"),
                                      Wide(root.privatePath() + "x/file"),
                                      Wide(root.privatePath()),
                                      u"relative",
                                      u""};
    for (const std::u16string& path : refused) {
        EXPECT_EQ(TbFileCreate(path.c_str(), 0), kInvalidHandle) << std::string(path.begin(), path.end());
    }
    TbFileDelete(Wide(outside + "/file").c_str());
    TbFileDelete((directory + u"directory\\file").c_str());
    TbFileDeleteNarrow((outside + "/file").c_str());
    EXPECT_EQ(ReadWholeFile(outside + "/file"), "kept");
    EXPECT_FALSE(fs::exists(outside + "/new"));
    EXPECT_EQ(RemoveDirectoryW(Wide(outside).c_str()), 0);
    TbFileDelete((directory + u"link").c_str());
    EXPECT_EQ(ReadWholeFile(outside + "/file"), "kept") << "the link goes, not what it leads to";

    const FileHandle handle = TbFileCreate((directory + u"good").c_str(), 0);
    ASSERT_NE(handle, kInvalidHandle);
    EXPECT_EQ(TbFileWrite(handle, "text", 4, 0), 4U);
    TbFileCreatedClose(handle, 0);
    EXPECT_EQ(ReadWholeFile(native + "good"), "text");
    struct stat status {};
    ASSERT_EQ(stat((native + "good").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(RemoveDirectoryW(name), 0) << "not empty";
}

TEST(Failures, OfMemoryAtAnySize) {
    const std::string message =
        Multipart("related",
                  {Plain("\x1B$B4A;z\x1B(B", Encoding::SevenBit, "iso-2022-jp"),
                   Html("<head></head><body>caf\xE9 iso-8859-1 <img src=\"cid:1@x\">", Encoding::QuotedPrintable, "iso-8859-1"),
                   Picture("a.png", std::string(3000, 'p'), "1@x")})
            .addressed()
            .field("Importance", EncodedWord("iso-8859-1", 'Q', "\xE9"))
            .bytes();
    const std::uint64_t enough = 16 * message.size();
    for (const Route route : kBothRoutes) {
        const Shown whole = Show(message, route);
        ASSERT_EQ(whole.status, kOk);
        for (std::uint64_t limit = 0; limit < enough; limit += 1 + limit / 16) {
            TbHostSetBlockLimit(limit);
            const Shown shown = Show(message, route);
            EXPECT_TRUE(shown.status < kOk ? shown.document.empty() : shown.status == kOk) << limit;
        }
        TbHostSetBlockLimit(512ULL << 20);
        EXPECT_TRUE(Show(message, route).document == whole.document);
    }
}

}  // namespace
