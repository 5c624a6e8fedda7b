// Pictures that the body names: data URIs, temporary files, and names that want to lead elsewhere.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "expected_document.h"
#include "fileformats/pst/common/inlineimages.h"
#include "filter_host.h"
#include "mime_builder.h"

using namespace ternkit;
using namespace mime;
using std::string_literals::operator""s;
namespace fs = std::filesystem;
using Pictures = std::map<std::string, std::string>;

namespace {

const std::string kBytes(60, '\x89');

std::string Uri(const std::string& bytes) {
    std::string text = Base64(bytes);
    for (std::size_t at = text.find("\r\n"); at != std::string::npos; at = text.find("\r\n")) {
        text.erase(at, 2);
    }
    return "data:image;base64," + text;
}

const std::string kUri = Uri(kBytes);

/// A message without a header block: the body and what comes behind it.
std::string Related(const std::string& html, std::vector<MimeBuilder> pictures) {
    pictures.insert(pictures.begin(), Html(html));
    return Multipart("related", std::move(pictures)).bytes();
}

struct Rewrite {
    const char* what;
    std::string html;
    std::vector<MimeBuilder> pictures;
    std::string inMemory;
    std::string inFile;
    Pictures files;
};

void Check(const std::vector<Rewrite>& cases) {
    for (const Rewrite& item : cases) {
        SCOPED_TRACE(item.what);
        const std::string message = Related(item.html, item.pictures);
        const Shown memory = Show(message, Route::Memory);
        EXPECT_EQ(memory.status, kOk);
        EXPECT_EQ(memory.document, Closed(item.inMemory));
        EXPECT_TRUE(memory.pictures.empty());
        const Shown file = Show(message, Route::TemporaryFiles);
        EXPECT_EQ(file.status, kOk);
        EXPECT_EQ(file.document, item.inFile);
        EXPECT_EQ(file.pictures, item.files);
    }
}

TEST(InlineImages, References) {
    const MimeBuilder picture = Picture("a.png", kBytes, "1@x");
    const Pictures file{{"1@x_a.png", kBytes}};
    Check({
        {"by id", R"(<img src="cid:1@x">)", {picture}, "<img src=\"" + kUri + "\">", R"(<img src="1@x_a.png">)", file},
        {"by name", R"(<img src="x/a.png?q">)", {picture}, "<img src=\"" + kUri + "\">", R"(<img src="1@x_a.png">)", file},
        {"the id goes first",
         R"(<img src="a.png"><img src="cid:1@x">)",
         {picture},
         "<img src=\"a.png\"><img src=\"" + kUri + "\">",
         R"(<img src="a.png"><img src="1@x_a.png">)",
         file},
        {"three times",
         R"("cid:1@x""cid:1@x" "cid:1@x")",
         {picture},
         "\"" + kUri + "\"\"" + kUri + "\" \"" + kUri + "\"",
         R"("1@x_a.png""1@x_a.png" "1@x_a.png")",
         file},
        {"VML keeps its reference",
         R"(<v:imagedata src="cid:1@x"/><V:imagedata src="cid:1@x"/><v:imagedata title="cid:1@x)",
         {picture},
         R"(<v:imagedata src="cid:1@x"/><V:imagedata src=")" + kUri + R"("/><v:imagedata title="cid:1@x)",
         R"(<v:imagedata src="cid:1@x"/><V:imagedata src="1@x_a.png"/><v:imagedata title="cid:1@x)",
         file},
        {"no closing quote",
         R"(<a b="c"><img src="cid:1@x>text)",
         {picture},
         R"(<a b="c"><img src=")" + kUri,
         R"(<a b="c"><img src="1@x_a.png)",
         file},
        {"no quote at all", "<img src=cid:1@x>text", {picture}, kUri, "1@x_a.png", file},
        {"no opening quote", R"(<img src=cid:1@x alt="x">)", {picture}, kUri + R"("x">)", R"(1@x_a.png"x">)", file},
        {"in the visible text",
         R"(<a href="b">see a.png</a><a id="c">)",
         {picture},
         R"(<a href="b")" + kUri + R"("c">)",
         R"(<a href="b"1@x_a.png"c">)",
         file},
        {"not named", R"(<img src="CID:1@X">A.PNG)", {picture}, R"(<img src="CID:1@X">A.PNG)", R"(<img src="CID:1@X">A.PNG)", {}},
        {"behind a NUL", "<img>\0\"cid:1@x\""s, {picture}, "<img>\0\"cid:1@x\""s, "<img>\0\"cid:1@x\""s, {}},
    });
}

TEST(InlineImages, WhichPartsCount) {
    const std::string html = R"(<img src="cid:1@x"><img src="b.gif">)";
    const std::string first = "<img src=\"" + kUri + "\">";
    const std::string other(90, 'b');
    const std::string body = R"("cid:1@x")";
    for (const char* type : {"image/png", "IMAGE/JPEG", "image/jpegx", "image/gif", "image/x-wmf"}) {
        EXPECT_EQ(Show(Related(body, {Picture("n", kBytes, "1@x", type)})).document, Closed("\"" + kUri + "\"")) << type;
    }
    for (const char* type : {"image/svg+xml", "image/bmp", "image/tiff", "text/css", "application/octet-stream", "text/xml"}) {
        EXPECT_EQ(Show(Related(body, {Picture("n", kBytes, "1@x", type)})).document, Closed(body)) << type;
    }
    const MimeBuilder unnamed = MimeBuilder("image/png", kBytes, Encoding::Base64).field("Content-ID", "<1@x>");
    Check({
        {"two pictures",
         html,
         {Picture("a.png", kBytes, "1@x"), Picture("b.gif", other, {}, "image/gif")},
         first + "<img src=\"" + Uri(other) + "\">",
         R"(<img src="1@x_a.png"><img src="b.gif">)",
         {{"1@x_a.png", kBytes}, {"b.gif", other}}},
        {"the same name twice",
         R"("cid:1@x" "cid:2@x")",
         {Picture("a.png", kBytes, "1@x"), Picture("a.png", other, "2@x")},
         "\"" + kUri + "\" \"" + Uri(other) + "\"",
         R"("1@x_a.png" "2@x_a.png")",
         {{"1@x_a.png", kBytes}, {"2@x_a.png", other}}},
        {"without a name", html, {unnamed}, html, html, {}},
        {"an empty name is none", html, {Picture("", kBytes, "1@x")}, html, html, {}},
        {"a later body takes it all away",
         html,
         {Picture("a.png", kBytes, "1@x"), Html("cid:1@x")},
         "cid:1@x",
         "cid:1@x",
         {{"1@x_a.png", kBytes}}},
        {"behind a skipped text", html, {Plain("x"), Picture("a.png", kBytes, "1@x")}, html, html, {}},
        {"the next but one",
         html,
         {Plain("x"), Plain("y"), Picture("a.png", kBytes, "1@x")},
         first + R"(<img src="b.gif">)",
         R"(<img src="1@x_a.png"><img src="b.gif">)",
         {{"1@x_a.png", kBytes}}},
    });
    const std::string before = Multipart("related", {Picture("a.png", kBytes, "1@x"), Html(html)}).bytes();
    EXPECT_EQ(Show(before).document, Closed(html)) << "in front of the body";
    const std::string nested =
        Multipart("related", {Multipart("alternative", {Html(html), Plain("x")}), Picture("a.png", kBytes, "1@x")}).bytes();
    EXPECT_EQ(Show(nested).document, Closed(first + R"(<img src="b.gif">)"));
    const Shown plain = Show(Multipart("mixed", {Plain("see a.png"), Picture("a.png", kBytes)}).bytes(), Route::TemporaryFiles);
    EXPECT_EQ(plain.document, Closed("a.png")) << "plain text between its quotes, which it has not";
    EXPECT_EQ(plain.pictures, (Pictures{{"a.png", kBytes}}));
}

TEST(InlineImages, NameAndIdOfAPart) {
    const auto part = [](const std::string& fields) {
        const std::string message =
            "From:\r\nContent-Type: multipart/related; boundary=b\r\n\r\n\r\n--b\r\nContent-Type: text/html\r\n\r\n"
            "<body>\"cid:1@x\" \"a.png\" \"icture.gif\"\r\n--b\r\n" +
            fields + "\r\n\r\n" + kBytes + "\r\n--b--";
        const Shown shown = Show(message, Route::TemporaryFiles);
        EXPECT_EQ(shown.status, kOk);
        std::set<std::string> names;
        for (const auto& [name, bytes] : shown.pictures) {
            EXPECT_EQ(bytes, kBytes);
            names.insert(name);
        }
        return names;
    };
    using Names = std::set<std::string>;
    EXPECT_EQ(part("Content-Type: image/png; name=\"a.png\""), Names{"a.png"});
    EXPECT_EQ(part("Content-Type: image/png;\r\n\tname=\"a.png"), Names{}) << "up to the content, blank line and all";
    EXPECT_EQ(part("Content-Type: image/png\r\nContent-Disposition: inline; filename=\"a.png\""), Names{"a.png"});
    EXPECT_EQ(part("Content-Disposition: inline; filename=\"a.png\"\r\nContent-Type: image/png"), Names{});
    EXPECT_EQ(part("Content-Type: image/gif; name=picture.gif\" x"), Names{"icture.gif"}) << "no opening quote";
    EXPECT_EQ(part("Content-Location: http://x/y/a.png\r\nContent-Type: image/png; name=\"no\""), Names{"a.png"});
    EXPECT_EQ(part("Content-Location: a.png\r\nContent-Type: image/png"), Names{"a.png"});
    EXPECT_EQ(part("Content-Location: http://x/\r\nContent-Type: image/png; name=\"a.png\""), Names{"a.png"});
    EXPECT_EQ(part("Content-Type: image/png; name=\"n\"\r\nContent-ID: <1@x>"), Names{"1@x_n"});
    EXPECT_EQ(part("Content-Type: image/png; name=\"n\"\r\nContent-ID: 1@x"), Names{"1@x_n"});
    EXPECT_EQ(part("Content-ID: zz <1@x> tail\r\nContent-Type: image/png; name=\"n\""), Names{"1@x_n"});
    EXPECT_EQ(part("Content-ID: <1@x\r\nContent-Type: image/png; name=\"n\""), Names{"1@x_n"});
    EXPECT_EQ(part("Content-ID: 1@x>\r\nContent-Type: image/png; name=\"n\""), Names{"1@x_n"});
    EXPECT_EQ(part("Content-ID: <>\r\nContent-Type: image/png; name=\"a.png\""), Names{"a.png"}) << "an empty id is none";
}

TEST(InlineImages, PathsOfTemporaryFiles) {
    struct {
        const char* id;
        const char* name;
        const char* file;
    } const cases[] = {
        {"", "a.png", "a.png"},
        {"id@x", "a.png", "id@x_a.png"},
        {"a.png@01D0.x", "a.png", "01D0.x_a.png"},
        {"a.png", "a.png", "_a.png"},
        {"a.png@", "a.png", "_a.png"},
        {"xa.pngy", "a.png", "xy_a.png"},
        {"xa.png@a.png", "a.png", "xa.png_a.png"},
        {"A.PNG@x", "a.png", "A.PNG@x_a.png"},
        {"1@x", "a b&<c>%41.png", "1@x_a b&<c>%41.png"},
        {"1@x", "b\xC3\xBC.png", "1@x_b\xC3\xBC.png"},
    };
    for (const auto& item : cases) {
        const std::string reference = *item.id != '\0' ? "cid:"s + item.id : item.name;
        const Shown shown = Show(Related("\"" + reference + "\"", {Picture(item.name, kBytes, item.id)}), Route::TemporaryFiles);
        EXPECT_EQ(shown.status, kOk);
        EXPECT_EQ(shown.document, "\""s + item.file + "\"");
        EXPECT_EQ(shown.pictures, (Pictures{{item.file, kBytes}}));
    }
    // An id of the part before does not stay.
    const std::string two = Related("\"cid:1@x\" \"b.png\"", {Picture("a.png", kBytes, "1@x"), Picture("b.png", kBytes)});
    EXPECT_EQ(Show(two, Route::TemporaryFiles).pictures, (Pictures{{"1@x_a.png", kBytes}, {"b.png", kBytes}}));
    const std::string again = Related("\"cid:1@x\" \"cid:2@x\"", {Picture("1@x_a", "11", "2@x"), Picture("n", "2", "1@x")});
    EXPECT_EQ(Show(again, Route::TemporaryFiles).pictures, (Pictures{{"2@x_1@x_a", "11"}, {"1@x_n", "2"}}));
    char path[kPathUnits];
    char16_t directory[kPathUnits] = u"/somewhere/";
    ASSERT_EQ(MakeInlineImagePath(path, directory, nullptr, "n"), kOk);
    EXPECT_STREQ(path, "/somewhere/n") << "no second separator";
}

TEST(InlineImages, NamesThatLeadElsewhere) {
    const TemporaryRoot target;
    const std::string outside = target.inputPath();
    const std::string names[] = {"../x.png",
                                 R"(..\x.png)",
                                 "../../../../../../../.." + outside,
                                 outside,
                                 R"(a\..\..\x.png)",
                                 "sub/x.png",
                                 R"(sub\x.png)",
                                 "..",
                                 "a/.",
                                 "/",
                                 "\\"};
    for (const std::string& name : names) {
        for (const std::string& id : {""s, "1@x"s}) {
            const std::string message = Related("\"cid:1@x\" \"" + name + "\"", {Picture(name, kBytes, id)});
            const Shown shown = Show(message, Route::TemporaryFiles);
            if (shown.status != kOk) {
                EXPECT_EQ(shown.status, kCannotCreate) << name;
                EXPECT_TRUE(shown.document.empty());
            } else {
                EXPECT_LE(shown.pictures.size(), 1U) << name;
            }
            EXPECT_EQ(Show(message, Route::Memory).status, kOk) << "no file, no path";
        }
    }
    EXPECT_FALSE(fs::exists(outside));
    const std::string message = Related("\"cid:1@x\"", {Picture("../x.png", kBytes, "1@x")});
    EXPECT_EQ(Show(message, Route::TemporaryFiles).status, kCannotCreate);
}

TEST(InlineImages, LengthOfAPath) {
    std::size_t directory = 0;  // its length, separator included
    for (std::size_t length = 150; length <= 255; ++length) {
        FilterHost host(Related("\"" + std::string(length, 'n') + "\"", {Picture(std::string(length, 'n'), kBytes)}),
                        Route::TemporaryFiles);
        const Status status = host.load();
        if (status == kOk) {
            directory = fs::path(host.delivery.documentPath).parent_path().string().size() + 1;
        }
        EXPECT_EQ(status, directory + length < 264 ? kOk : kPathTooLong) << length;
    }
    EXPECT_GT(directory, 20U) << "long enough for both outcomes";
    for (const std::size_t length : {1000U, 100'000U}) {
        const std::string name(length, 'n');
        EXPECT_EQ(Show(Related("\"" + name + "\"", {Picture(name, kBytes)}), Route::TemporaryFiles).status, kPathTooLong);
        EXPECT_EQ(Show(Related("\"" + name + "\"", {Picture(name, kBytes)})).document, Closed("\"" + kUri + "\""));
        EXPECT_EQ(Show(Related("\"cid:" + name + "\"", {Picture("n", kBytes, name)}), Route::TemporaryFiles).status,
                  kPathTooLong);
    }
    const std::string invalid = Related("\"a\xFF.png\"", {Picture("a\xFF.png", kBytes)});
    EXPECT_EQ(Show(invalid, Route::TemporaryFiles).status, kWideConversionFailed);
    EXPECT_EQ(Show(invalid).status, kOk);
}

TEST(InlineImages, RoomOfADataUri) {
    const std::set<std::size_t> fitting{15, 18, 21, 24, 27, 30, 33, 35, 36, 38, 39, 41, 42, 44, 45, 47, 48, 50, 51};
    for (std::size_t size = 0; size <= 60; ++size) {
        const std::string bytes(size, '\x5A');
        const MimeBuilder picture = MimeBuilder("image/png; name=\"a.png\"", bytes, Encoding::EightBit);
        const Shown memory = Show(Related("<img src=\"a.png\">", {picture}));
        const bool fits = size >= 53 || fitting.contains(size);
        EXPECT_EQ(memory.status, fits ? kOk : size == 0 ? kBadArgument : 0) << size;
        EXPECT_EQ(memory.document, fits ? Closed("<img src=\"" + Uri(bytes) + "\">") : "") << size;
        const Shown file = Show(Related("<img src=\"a.png\">", {picture}), Route::TemporaryFiles);
        EXPECT_EQ(file.status, kOk);
        EXPECT_EQ(file.pictures, (Pictures{{"a.png", bytes}}));
        OwnedBytes uri;
        EXPECT_EQ(BuildImageDataUri(uri, bytes.data(), size), memory.status);
        if (fits) {
            EXPECT_EQ(std::string(uri.data, uri.size), Uri(bytes));
        }
    }
    OwnedBytes uri;
    EXPECT_EQ(BuildImageDataUri(uri, nullptr, 60), kBadArgument);
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    EXPECT_EQ(Show(Related("\"a.png\"", {Picture("a.png", all)})).document, Closed("\"" + Uri(all) + "\""));
    EXPECT_EQ(Show(Related("\"a.png\"", {Picture("a.png", all)}), Route::TemporaryFiles).pictures, (Pictures{{"a.png", all}}));
}

TEST(InlineImages, CountOfReplacements) {
    PstFilterData filterData;
    OwnedBytes body;
    ASSERT_EQ(body.appendText(R"(<img src="cid:1@x"><v:imagedata src="cid:1@x"><img src="cid:1@x">)", -1), kOk);
    InlineImageContext context(filterData, body);
    EXPECT_EQ(LocateInlineImage(context, nullptr, nullptr), kAbsent);
    EXPECT_EQ(LocateInlineImage(context, "", nullptr), kAbsent);
    EXPECT_EQ(LocateInlineImage(context, "", ""), kAbsent);
    EXPECT_EQ(LocateInlineImage(context, nullptr, "2@x"), kAbsent);
    ASSERT_EQ(LocateInlineImage(context, nullptr, "1@x"), kOk);
    EXPECT_STREQ(context.needle, "cid:1@x");
    std::uint64_t count = 99;
    ASSERT_EQ(EmbedInlineImage(context, kBytes.data(), kBytes.size(), &count), kOk);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(filterData.tempFiles.size, 0U);
    OwnedBytes empty;
    InlineImageContext nothing(filterData, empty);
    EXPECT_EQ(LocateInlineImage(nothing, "a", "a"), kAbsent);
}

TEST(InlineImages, ManyReferencesAndManyPictures) {
    std::string html;
    std::string expected;
    std::vector<MimeBuilder> pictures;
    for (int number = 1000; number < 1200; ++number) {
        const std::string id = std::to_string(number) + "@x";
        html += "<img src=\"cid:" + id + "\">";
        expected += "<img src=\"" + id + "_p\">";
        pictures.push_back(Picture("p", kBytes, id));
    }
    const Shown shown = Show(Related(html, pictures), Route::TemporaryFiles);
    EXPECT_EQ(shown.document, expected);
    EXPECT_EQ(shown.pictures.size(), 200U);
    std::string repeated;
    for (int count = 0; count < 20'000; ++count) {
        repeated += "<img src=\"cid:1@x\">";
    }
    const Shown many = Show(Related(repeated, {Picture("p", kBytes, "1@x")}), Route::TemporaryFiles);
    EXPECT_EQ(many.document.size(), 20'000 * std::string("<img src=\"1@x_p\">").size());
}

}  // namespace
