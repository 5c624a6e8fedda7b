// The host's RTF loader: what the office suite makes of a document, what it never gets to see, and how failures stay single.

#include <cairo-pdf.h>
#include <cairo.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <variant>
#include <vector>

#include "job.h"
#include "loaders/laid_out_document.h"
#include "loaders/rtf_guard.h"
#include "office/office.h"
#include "rtf_compressor.h"
#include "service_test.h"
#include "store_builder.h"

namespace {

namespace fs = std::filesystem;
using namespace ternview;
using namespace std::chrono_literals;

constexpr PageSetup kPaper{800, 1100, 50};

class RtfLoader : public testing::Test {
protected:
    static void SetUpTestSuite() { s_office = std::make_unique<AttendedService<Office>>(); }
    static void TearDownTestSuite() { s_office.reset(); }

    void SetUp() override {
        use(60s);
        std::string path = (fs::temp_directory_path() / "test-rtf-XXXXXX").string();
        ASSERT_NE(mkdtemp(path.data()), nullptr);
        root_ = path;
    }
    void TearDown() override { fs::remove_all(root_); }

    static void use(std::chrono::seconds limit) { useOffice({s_office->gate(), limit}); }

    static std::unique_ptr<AttendedService<Office>> s_office;
    fs::path root_;
};
std::unique_ptr<AttendedService<Office>> RtfLoader::s_office;

std::string rtf(const std::string& body) {
    return "{\\rtf1\\ansi\\ansicpg1252\\deff0\\uc1{\\fonttbl{\\f0\\fswiss\\fcharset0 DejaVu Sans;}{\\f1\\fswiss\\fcharset204 "
           "DejaVu Sans;}"
           "{\\f2\\fswiss\\fcharset161 DejaVu Sans;}{\\f3\\fnil\\fcharset134 Noto Sans CJK SC;}{\\f4\\fnil\\fcharset0 Noto Color "
           "Emoji;}}"
           "\\pard\\f0\\fs24 " +
           body + "\\par}";
}

std::string slowDocument() {
    std::string body;
    for (int i = 0; i < 100000; ++i) {
        body += "a rather long document that takes its time \\par ";
    }
    return rtf(body);
}

std::string readFile(const fs::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

/// What the suite reads in a document, without the byte-order mark and the last end of line.
std::string textOf(const std::string& document) {
    std::string text = convertInOffice(document, OfficeTarget::kText, usedOffice());
    EXPECT_TRUE(text.starts_with("\xEF\xBB\xBF"));
    text.erase(0, 3);
    text.erase(text.find_last_not_of("\r\n") + 1);
    return text;
}

/// What the filter makes of a store's message with an RTF body, through the built program.
std::string documentOfStore(const fs::path& directory, const builder::MessageFields& fields) {
    builder::StoreBuilder store(builder::Layout::Unicode, builder::Encoding::Permutative);
    store.addFolder("Inbox").addMessage(fields);
    const fs::path path = directory / "mail.pst";
    const fs::path document = directory / "mail.rtf";
    store.write(path.string());
    const std::string command = "'" TERNVIEW_PROGRAM "' document '" + path.string() + "' --strict --lang 0x0409 -o '" +
                                document.string() + "' > /dev/null";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return readFile(document);
}

using Surface = std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)>;
using Context = std::unique_ptr<cairo_t, decltype(&cairo_destroy)>;

/// Number of pixels of one page that the test takes for its colour, given as 0xRRGGBB.
int count(LaidOutDocument& document, int page, bool (*matches)(std::uint32_t)) {
    const PaperSize size = document.paperSize(page);
    const Surface surface(
        cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(size.width), static_cast<int>(size.height)),
        &cairo_surface_destroy);
    const Context context(cairo_create(surface.get()), &cairo_destroy);
    cairo_set_source_rgb(context.get(), 1, 1, 1);
    cairo_paint(context.get());
    document.drawPage(page, context.get());
    cairo_surface_flush(surface.get());
    int result = 0;
    for (int y = 0; y < cairo_image_surface_get_height(surface.get()); ++y) {
        const unsigned char* row =
            cairo_image_surface_get_data(surface.get()) + y * cairo_image_surface_get_stride(surface.get());
        for (int x = 0; x < cairo_image_surface_get_width(surface.get()); ++x) {
            std::uint32_t pixel;
            std::memcpy(&pixel, row + 4 * x, sizeof(pixel));
            result += matches(pixel & 0xFFFFFF) ? 1 : 0;
        }
    }
    return result;
}

bool isInk(std::uint32_t color) {
    return color != 0xFFFFFF;
}

bool isRed(std::uint32_t color) {
    return color == 0xFF0000;
}

/// The text of a page as a reader of the PDF that the host makes finds it.
std::string textOfPdf(LaidOutDocument& document, const fs::path& directory) {
    const fs::path file = directory / "out.pdf";
    const PaperSize size = document.paperSize(0);
    {
        const Surface surface(cairo_pdf_surface_create(file.c_str(), size.width, size.height), &cairo_surface_destroy);
        const Context context(cairo_create(surface.get()), &cairo_destroy);
        for (int page = 0; page < document.pageCount(); ++page) {
            document.drawPage(page, context.get());
            cairo_show_page(context.get());
        }
    }
    const std::string command = "pdftotext '" + file.string() + "' '" + (directory / "out.txt").string() + "'";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return readFile(directory / "out.txt");
}

/// A red square of 200 pixels.
std::string redPng() {
    const Surface surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, 200, 200), &cairo_surface_destroy);
    const Context context(cairo_create(surface.get()), &cairo_destroy);
    cairo_set_source_rgb(context.get(), 1, 0, 0);
    cairo_paint(context.get());
    std::string result;
    const auto append = [](void* target, const unsigned char* data, unsigned int size) {
        static_cast<std::string*>(target)->append(reinterpret_cast<const char*>(data), size);
        return CAIRO_STATUS_SUCCESS;
    };
    cairo_surface_write_to_png_stream(surface.get(), append, &result);
    return result;
}

TEST_F(RtfLoader, TextOfEveryScriptArrives) {
    const std::string document =
        rtf("Caf\\'e9 {\\b bold} \\{brace\\}\\par"
            "\\f1\\u1055?\\u1088?\\u1080?\\u1074?\\u1077?\\u1090? \\'cf\\'f0\\'e8\\'e2\\'e5\\'f2\\par"
            "\\f2\\u915?\\u949?\\u953?\\u940? \\'c3\\'e5\\'e9\\'dc\\par\\f3\\u20320?\\u22909? "
            "\\'c4\\'e3\\par\\f4\\u-10179?\\u-8704?");
    EXPECT_EQ(textOf(document), "Café bold {brace}\nПривет Привет\nΓειά Γειά\n你好 你\n😀");
    EXPECT_EQ(textOf(guardRtf(document, kPaper)), textOf(document)) << "the guard leaves text alone";

    const auto emoji = layOutRtf(rtf("\\f4\\u-10179?\\u-8704?\\u-10179?\\u-9139?"), kPaper);
    EXPECT_GT(count(*emoji, 0, isInk), 100);

    const auto laidOut = layOutRtf(document, kPaper);
    EXPECT_EQ(laidOut->pageCount(), 1);
    EXPECT_GT(count(*laidOut, 0, isInk), 1000);
    const std::string text = textOfPdf(*laidOut, root_);
    for (const char* words : {"Café", "bold", "Привет", "Γειά", "你好"}) {
        EXPECT_NE(text.find(words), std::string::npos) << words << " in " << text;
    }
}

TEST_F(RtfLoader, BulletsOfEastAsianDocumentsAreBullets) {
    const auto list = [](const std::string& page) {
        const std::string item = "\\pard{\\*\\pn\\pnlvlblt\\pnf1\\pnindent0{\\pntxtb\\'b7}}\\fi-380\\li380 one\\par";
        return "{\\rtf1\\ansi\\ansicpg" + page + "\\deff0{\\fonttbl{\\f0\\fcharset0 Arial;}{\\f1\\fcharset2 Symbol;}}" + item +
               "}";
    };
    const std::string bullet = "\uF0B7";
    for (const char* page : {"932", "950"}) {
        const auto laidOut = layOutRtf(guardRtf(list(page), kPaper), kPaper);
        const std::string text = textOfPdf(*laidOut, root_);
        EXPECT_NE(text.find(bullet), std::string::npos) << page << ": " << text;
    }
}

TEST_F(RtfLoader, PagesFollowTheDocumentAndThePaper) {
    const auto three = layOutRtf(rtf("one\\page two\\page three"), kPaper);
    ASSERT_EQ(three->pageCount(), 3);
    for (int page = 0; page < 3; ++page) {
        EXPECT_GT(count(*three, page, isInk), 50) << page;
        EXPECT_NEAR(three->paperSize(page).width, 800, 1);
        EXPECT_NEAR(three->paperSize(page).height, 1100, 1);
    }
    const auto own = layOutRtf("{\\rtf1\\ansi\\paperw7500\\paperh6000\\margl300 text\\par}", kPaper);
    EXPECT_NEAR(own->paperSize(0).width, 500, 1);
    EXPECT_NEAR(own->paperSize(0).height, 400, 1);
    for (const char* none :
         {"\\paperw0\\paperh0 ", "\\paperw\\paperh-1\n", "\\paperw1\\paperh719{}\\sectd\\pgwsxn20\\pghsxn0 "}) {
        const auto laidOut = layOutRtf(std::string("{\\rtf1\\ansi") + none + "text\\par}", kPaper);
        EXPECT_NEAR(laidOut->paperSize(0).width, 800, 1) << none;
        EXPECT_NEAR(laidOut->paperSize(0).height, 1100, 1) << none;
        EXPECT_GT(count(*laidOut, 0, isInk), 50) << none;
    }
}

std::string inHex(std::string_view bytes) {
    std::string hex;
    for (const char c : bytes) {
        constexpr char kDigits[] = "0123456789abcdef";
        hex += kDigits[static_cast<unsigned char>(c) >> 4];
        hex += kDigits[static_cast<unsigned char>(c) & 15];
    }
    return hex;
}

std::string picture(const std::string& data) {
    return "{\\pict\\pngblip\\picw200\\pich200\\picwgoal3000\\pichgoal3000 " + data + "}";
}

TEST_F(RtfLoader, PicturesInTheDocumentAreShown) {
    const std::string png = redPng();
    EXPECT_GT(count(*layOutRtf(rtf(picture(inHex(png))), kPaper), 0, isRed), 20000);
    EXPECT_GT(count(*layOutRtf(rtf(picture("\\bin" + std::to_string(png.size()) + " " + png)), kPaper), 0, isRed), 20000);
}

TEST_F(RtfLoader, CommentsDoNotHideTheText) {
    const std::string comment = "{\\*\\atnid ab}{\\*\\atnauthor x}\\chatn{\\*\\annotation{\\*\\atnref 1}\\pard\\plain aside}";
    EXPECT_NE(textOfPdf(*layOutRtf(rtf("shown" + comment), kPaper), root_).find("shown"), std::string::npos);
}

TEST_F(RtfLoader, NothingIsFetched) {
    const std::string local = (root_ / "red.png").string();
    std::ofstream(local, std::ios::binary) << redPng();
    std::ofstream(root_ / "secret.txt") << "SECRET";
    std::ofstream(root_ / "secret.rtf") << rtf("SECRET");
    const Listener listener;
    const auto field = [](const std::string& instruction) {
        return "{\\field{\\*\\fldinst " + instruction + "}{\\fldrslt seen}}";
    };
    const auto object = [](const std::string& kind, const std::string& file) {
        return "{\\object" + kind + "\\objupdate\\objw3000\\objh3000{\\*\\objclass Word.Document.8}{\\*\\objalias " + file +
               "}{\\*\\objdata 0105000001000000}{\\result seen}}";
    };
    const std::string secret = (root_ / "secret").string();
    struct {
        std::string what;
        std::string body;
    } const cases[] = {
        {"local text", field("INCLUDETEXT \"" + secret + ".txt\"")},
        {"local document", field("INCLUDETEXT \"" + secret + ".rtf\"")},
        {"local picture", field("INCLUDEPICTURE \"" + local + "\" \\\\d")},
        {"local picture by URL", field("INCLUDEPICTURE \"file://" + local + "\" \\\\* MERGEFORMATINET")},
        {"instruction in pieces", field("{INCLUDE}{\\b PICTURE \"" + local + "\"}")},
        {"instruction in escapes", field("\\'49NCLUDEPICTUR\\u69? \"" + local + "\" \\\\d")},
        {"instruction in a harmless one", field("HYPERLINK " + field("INCLUDEPICTURE \"" + local + "\" \\\\d"))},
        {"instruction in binary data", "{\\*\\unknown\\bin3 {\\*}" + field("INCLUDEPICTURE \"" + local + "\" \\\\d")},
        {"instruction behind a comment", field("{\\comment HYPERLINK }INCLUDEPICTURE \"" + local + "\" \\\\d")},
        {"remote picture", field("INCLUDEPICTURE \"" + listener.address() + "\" \\\\d")},
        {"import", field("IMPORT \"" + local + "\"")},
        {"link", field("LINK Word.Document.8 \"" + secret + ".rtf\" \"\" \\\\a \\\\r")},
        {"data source", field("DATABASE \\\\d \"" + secret + ".txt\"")},
        {"linked object", object("\\objautlink", secret + ".rtf")},
        {"embedded object", object("\\objemb", secret + ".rtf")},
    };
    for (const auto& [what, body] : cases) {
        const std::string document = rtf("before " + body + " after");
        const auto laidOut = layOutRtf(document, kPaper);
        const std::string text = textOfPdf(*laidOut, root_);
        EXPECT_NE(text.find("before"), std::string::npos) << what << ": " << text;
        EXPECT_NE(text.find("seen"), std::string::npos) << what << ": " << text;
        EXPECT_NE(text.find("after"), std::string::npos) << what << ": " << text;
        EXPECT_EQ(text.find("SECRET"), std::string::npos) << what;
        EXPECT_EQ(count(*laidOut, 0, isRed), 0) << what;
        // The process itself is the second wall: it cannot reach what a document that got past the guard would name.
        EXPECT_EQ(textOf(document).find("SECRET"), std::string::npos) << what;
    }
    // Red itself, for kernels that keep the file from the suite.
    const std::string svg =
        "<svg xmlns='http://www.w3.org/2000/svg' xmlns:xlink='http://www.w3.org/1999/xlink' width='99' height='99'>"
        "<rect width='99' height='99' fill='red'/><image width='9' height='9' xlink:href='file://" +
        local + "'/></svg>";
    EXPECT_EQ(count(*layOutRtf(rtf(picture(inHex(svg))), kPaper), 0, isRed), 0);
    const std::string template_ = "{\\*\\template " + listener.address() + "}{\\*\\mailmerge{\\mmdatasource " + secret + ".txt}}";
    EXPECT_NE(textOfPdf(*layOutRtf(rtf(template_ + "body"), kPaper), root_).find("body"), std::string::npos);
    EXPECT_FALSE(listener.wasCalled());
}

TEST_F(RtfLoader, GuardKeepsNoFieldWhoseBeginningIsSkipped) {
    const auto keeps = [](const std::string& before) {
        return guardRtf(rtf(before + "{\\field{\\*\\fldinst HYPERLINK x}{\\fldrslt x}}"), kPaper).find("HYPERLINK") !=
               std::string::npos;
    };
    for (const char* before :
         {"\\uc10\\u65 ", "{\\uc10\\u65 x\r\n\\uc0{\\b ", "\\uc10\\u65\\'3f", "\\uc10\\uc\\UC0\\u65 ", "\\u65{x}"}) {
        EXPECT_FALSE(keeps(before)) << before;
    }
    for (const char* before : {"\\uc2\\u65 xy", "\\u65\\'3f", "{\\uc10\\u65}", "\\uc0\\u65 "}) {
        EXPECT_TRUE(keeps(before)) << before;
    }
}

TEST_F(RtfLoader, GuardJoinsNoWordsWhereItTakesSomethingOut) {
    for (const char* words : {"{\\*\\objd\\bin0 ata 01}", "{\\*\\fldi\\bin-1 nst INCLUDETEXT}", "{\\*\\temp\\bin0 late x}"}) {
        const std::string guarded = guardRtf(rtf(words), kPaper);
        for (const char* word : {"objdata", "fldinst", "template"}) {
            EXPECT_EQ(guarded.find(word), std::string::npos) << guarded;
        }
    }
}

TEST_F(RtfLoader, GuardKeepsHarmlessFields) {
    const auto keeps = [](const std::string& instruction) {
        const std::string field = "{\\field{\\*\\fldinst" + instruction + "}{\\fldrslt x}}";
        return guardRtf(rtf(field), kPaper).find(field) != std::string::npos;
    };
    for (const char* instruction : {" HYPERLINK \"http://example.org\" ", " SYMBOL 74 \\\\f \"Wingdings\" \\\\s 11",
                                    "{\\rtlch\\fcs1 \\af0 \\insrsid5  PAGE }", "\r\n{ hyperlink \"x\"}"}) {
        EXPECT_TRUE(keeps(instruction)) << instruction;
    }
    for (const char* instruction :
         {" HYPERLINKS x", " DDEAUTO x", "{HYPER}LINK x", " \\u72?YPERLINK x", "", " INCLUDEPICTURE HYPERLINK x",
          "{\\comment HYPERLINK }INCLUDETEXT x", "{\\stylesheet PAGE }INCLUDETEXT x", "{\\info{\\title PAGE }}IMPORT x"}) {
        EXPECT_FALSE(keeps(instruction)) << instruction;
    }
}

TEST_F(RtfLoader, DamagedDocumentsGivePagesOrOneSentence) {
    for (const std::string& bytes : {std::string(), std::string("{\\rt"), std::string("<html><body>{\\rtf1</body></html>"),
                                     std::string("%PDF-1.4"), std::string("PK\x03\x04{\\rtf1")}) {
        EXPECT_NE(loadErrorOf([&] { layOutRtf(bytes, kPaper); }).find("no RTF"), std::string::npos) << bytes;
    }
    for (const std::string cut : {"", "{\\b", "{\\i{", "\\", "\\'", "\\'e", "}} }", "{\\*\\fldinst X", "{\\pict\\pngblip 8950"}) {
        const auto laidOut = layOutRtf("{\\rtf1\\ansi what there is " + cut, kPaper);
        EXPECT_NE(textOfPdf(*laidOut, root_).find("what there is"), std::string::npos) << cut;
    }
    const std::string whole = rtf("{\\b text}{\\field{\\*\\fldinst PAGE }{\\fldrslt 1}}{\\pict\\pngblip 89504e47}");
    std::vector<std::string> damaged{"{\\rtf",
                                     "{\\rtf1",
                                     "{\\rtf1}}}}}",
                                     "{\\rtf1" + std::string(20000, '{'),
                                     "{\\rtf1\\bin999999999 x",
                                     "{\\rtf1\\bin-5 x}",
                                     "{\\rtf1\\paperw-1\\paperh0 x}",
                                     "{\\rtf1\\u999999999999 x\\'zz\\",
                                     "{\\rtf1{\\*\\fldinst",
                                     "{\\rtf1{\\pict\\wmetafile8 ff}x}",
                                     "{\\rtf1\\trowd\\cellx-5\\cellx99999999 a\\cell\\row}",
                                     "{\\rtf1 \x80\xFF" + std::string(3, '\0') + "}"};
    for (std::size_t end = 6; end < whole.size(); end += 23) {
        damaged.push_back(whole.substr(0, end));
    }
    for (const std::string& bytes : damaged) {
        try {
            EXPECT_GE(layOutRtf(bytes, kPaper)->pageCount(), 1);
        } catch (const LoadError& error) {
            EXPECT_NE(std::string_view(error.what()).find("office suite"), std::string_view::npos) << error.what();
        }
    }
    EXPECT_EQ(textOf(rtf("still there")), "still there");
}

TEST_F(RtfLoader, OneProcessServesManyDocuments) {
    EXPECT_EQ(textOf(rtf("first")), "first");
    const pid_t process = s_office->processId();
    ASSERT_GT(process, 0);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(textOf(rtf("number " + std::to_string(i))), "number " + std::to_string(i));
    }
    EXPECT_EQ(s_office->processId(), process);
}

TEST_F(RtfLoader, AnEndedProcessIsOneFailureAndIsStartedAnew) {
    const std::string slow = slowDocument();
    EXPECT_EQ(textOf(rtf("warm")), "warm");
    const pid_t process = s_office->processId();
    ASSERT_GT(process, 0);
    std::thread killer([process] {
        std::this_thread::sleep_for(300ms);
        ::kill(process, SIGKILL);
    });
    EXPECT_NE(loadErrorOf([&] { layOutRtf(slow, kPaper); }).find("ended early"), std::string::npos);
    killer.join();
    EXPECT_EQ(textOf(rtf("again")), "again");

    // Ended while idle: nobody notices.
    ::kill(s_office->processId(), SIGKILL);
    EXPECT_EQ(textOf(rtf("and again")), "and again");

    use(1s);
    try {
        layOutRtf(slow, kPaper);
        ADD_FAILURE() << "no time limit";
    } catch (const JobError& error) {
        EXPECT_EQ(error.failure(), Failure::kTimeLimit);
    }
    use(60s);
    EXPECT_EQ(textOf(rtf("after all")), "after all");
}

TEST_F(RtfLoader, TheProcessInheritsNothing) {
    const Descriptor socket(::socket(AF_INET, SOCK_DGRAM, 0));
    const Descriptor inherited(::dup2(socket.get(), 100));
    const AttendedService<Office> fresh;
    convertInOffice(rtf("x"), OfficeTarget::kText, {fresh.gate(), 60s});
    const fs::path open = "/proc/" + std::to_string(fresh.processId()) + "/fd";
    EXPECT_TRUE(fs::is_symlink(open / "0"));
    EXPECT_FALSE(fs::is_symlink(open / "100"));
}

TEST_F(RtfLoader, RequestsDoNotSetTheirOwnTimeLimit) {
    const AttendedService<Office> hasty(1s);
    EXPECT_NE(loadErrorOf([&] {
                  convertInOffice(slowDocument(), OfficeTarget::kHtml, {hasty.gate(), 60s});
              }).find("ended early"),
              std::string::npos);
}

bool sendTwoThroughGate(int gate, const std::array<int, 2>& descriptors) {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(descriptors))> ancillary{};
    char mark = 0;
    iovec content{&mark, 1};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = ancillary.data();
    message.msg_controllen = ancillary.size();
    *CMSG_FIRSTHDR(&message) = {CMSG_LEN(sizeof(descriptors)), SOL_SOCKET, SCM_RIGHTS};
    std::memcpy(CMSG_DATA(CMSG_FIRSTHDR(&message)), descriptors.data(), sizeof(descriptors));
    return ::sendmsg(gate, &message, 0) == 1;
}

TEST_F(RtfLoader, OneAskerCannotCloseTheGateForOthers) {
    EXPECT_EQ(textOf(rtf("first")), "first");
    const pid_t process = s_office->processId();
    const int gate = s_office->gate();
    std::array<int, 2> ends;
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const Descriptor output(ends[0]);
    const Descriptor input(ends[1]);
    EXPECT_TRUE(sendThroughGate(gate, output.get()));
    EXPECT_TRUE(sendTwoThroughGate(gate, ends));
    EXPECT_EQ(textOf(rtf("behind a pipe that stays silent")), "behind a pipe that stays silent");
    EXPECT_EQ(s_office->processId(), process);
    const fs::path pipe = fs::read_symlink("/proc/self/fd/" + std::to_string(output.get()));
    for (const auto& open : fs::directory_iterator("/proc/" + std::to_string(process) + "/fd")) {
        std::error_code hasGone;
        EXPECT_NE(fs::read_symlink(open.path(), hasGone), pipe) << "what came beside or instead of a socket is closed";
    }

    ::shutdown(gate, SHUT_RDWR);
    for (int i = 0; i < 500 && s_office->gate() == gate; ++i) {
        std::this_thread::sleep_for(20ms);
    }
    use(60s);
    EXPECT_EQ(textOf(rtf("through another gate")), "through another gate");
}

/// A service whose program does not start.
class Unable : public ServiceProcess {
public:
    Unable() : ServiceProcess(command) { starts = 0; }
    static inline std::atomic<int> starts;

private:
    static ServiceCommand command(const std::string&) {
        ++starts;
        return {.program = "/nonexistent", .arguments = {}, .environment = {}};
    }
};

TEST(Service, ThatDoesNotStartIsStartedOnceForADocument) {
    const AttendedService<Unable> unable;
    for (const int documents : {1, 2}) {
        const auto answer = askService({unable.gate(), 2s}, "", "", 0s);
        ASSERT_TRUE(std::holds_alternative<ServiceFailure>(answer));
        EXPECT_EQ(std::get<ServiceFailure>(answer), ServiceFailure::kEndedEarly);
        EXPECT_EQ(Unable::starts, documents);
    }
}

TEST(Service, ForgetsWhatAnEarlierWorkerLeftInTheGate) {
    Unable service;
    const Descriptor left(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_TRUE(sendThroughGate(service.gate(), left.get()));
    service.prepareFor(60s);
    service.attend();
    EXPECT_EQ(Unable::starts, 0);
}

/// All on one processor, so that what was killed gets to run only after something has been sent.
TEST(Service, ThatIsKilledWhileItWaitsTakesNothingAlong) {
    cpu_set_t before;
    ASSERT_EQ(::sched_getaffinity(0, sizeof(before), &before), 0);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(::sched_getcpu()), &one);
    ASSERT_EQ(::sched_setaffinity(0, sizeof(one), &one), 0);
    for (int i = 0; i < 20; ++i) {
        std::array<int, 2> gate;
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, gate.data()), 0);
        const Descriptor askers(gate[0]);
        const Descriptor takers(gate[1]);
        const Descriptor document(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const pid_t waiting = ::fork();
        if (waiting == 0) {
            receiveThroughGate(takers.get());
            ::_exit(0);
        }
        std::this_thread::sleep_for(10ms);
        ::kill(waiting, SIGKILL);
        EXPECT_TRUE(sendThroughGate(askers.get(), document.get()));
        int status = 0;
        EXPECT_EQ(::waitpid(waiting, &status, 0), waiting);
        EXPECT_TRUE(WIFSIGNALED(status));
        EXPECT_TRUE(receiveThroughGate(takers.get(), MSG_DONTWAIT)) << "taken by a process that was dead already";
    }
    ::sched_setaffinity(0, sizeof(before), &before);
}

TEST_F(RtfLoader, AMissingSuiteIsNamed) {
    ::setenv("TERNVIEW_OFFICE", root_.c_str(), 1);
    try {
        layOutRtf(rtf("x"), kPaper);
        ADD_FAILURE() << "no error";
    } catch (const JobError& error) {
        EXPECT_EQ(error.failure(), Failure::kOfficeMissing);
        EXPECT_EQ(error.what(), root_.string());
    }
    ::unsetenv("TERNVIEW_OFFICE");
}

TEST_F(RtfLoader, HeaderLinesOfEveryScriptReachTheReader) {
    const std::string block =
        ::rtf::Compressed("{\\rtf1\\ansi\\ansicpg1252\\deff0{\\fonttbl{\\f0\\fswiss\\fcharset0 Arial;}}\\pard Body\\par}");
    const std::string sender = "Елена Соколова";
    const std::string to = "Γιώργος Παπαδόπουλος; 王小明";
    const std::string subject = "Grüße 😀 ok";
    const std::string document = documentOfStore(root_, {.subject = subject,
                                                         .rtfCompressed = builder::Bytes(block.begin(), block.end()),
                                                         .senderName = sender,
                                                         .to = to,
                                                         .submitTime = std::nullopt});
    std::string text = textOf(document);
    // The suite puts a thin space in front of each of several blanks.
    constexpr std::string_view kThinSpace = "\xE2\x80\x86";
    for (std::size_t at = text.find(kThinSpace); at != std::string::npos; at = text.find(kThinSpace, at)) {
        text.erase(at, kThinSpace.size());
    }
    for (const std::string& wanted :
         {"From:      \t" + sender, "To:        \t" + to, "Subject:   \t" + subject, std::string("Body")}) {
        EXPECT_NE(text.find(wanted), std::string::npos) << wanted << " in\n" << text;
    }
}

}  // namespace
