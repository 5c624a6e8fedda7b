// HTML that a browser lays out: which documents go to it, what its pages show, what it never gets to do, and how failures stay
// single. Without an installed browser only its absence is tested.

#include <cairo-pdf.h>
#include <cairo.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <ternkit/formats.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "browser/browser.h"
#include "browser/color_glyphs.h"
#include "html_engine.h"
#include "json_output.h"
#include "loaders/html_addresses.h"
#include "loaders/pdf_document.h"
#include "mime_builder.h"
#include "private_directory.h"
#include "service_test.h"
#include "shared_value.h"
#include "ternview_program.h"
#include "worker_process.h"

namespace {

namespace fs = std::filesystem;
using namespace ternview;
using namespace std::chrono_literals;

constexpr PageSetup kPaper{800, 1100, 50};

std::string repeated(std::string_view text, int count) {
    std::string result;
    for (int i = 0; i < count; ++i) {
        result += text;
    }
    return result;
}

// ---- processes

std::vector<pid_t> childrenOf(pid_t process) {
    std::vector<pid_t> children;
    std::error_code error;
    for (const auto& thread : fs::directory_iterator("/proc/" + std::to_string(process) + "/task", error)) {
        std::ifstream stream(thread.path() / "children");
        for (pid_t child = 0; stream >> child;) {
            children.push_back(child);
        }
    }
    return children;
}

/// All that a process has started, directly or not.
std::vector<pid_t> familyOf(pid_t process) {
    std::vector<pid_t> family = childrenOf(process);
    for (std::size_t i = 0; i < family.size(); ++i) {
        const std::vector<pid_t> more = childrenOf(family[i]);
        family.insert(family.end(), more.begin(), more.end());
    }
    return family;
}

std::string argumentsOf(pid_t process) {
    std::string arguments = readFile("/proc/" + std::to_string(process) + "/cmdline");
    std::replace(arguments.begin(), arguments.end(), '\0', ' ');
    return arguments;
}

/// Of a family: the processes whose arguments hold all of these words.
std::vector<pid_t> withArguments(pid_t process, const std::vector<std::string>& words) {
    std::vector<pid_t> found = familyOf(process);
    std::erase_if(found, [&words](pid_t member) {
        const std::string arguments = argumentsOf(member);
        return !std::all_of(words.begin(), words.end(),
                            [&arguments](const std::string& word) { return arguments.find(word) != std::string::npos; });
    });
    return found;
}

bool waitUntil(const std::function<bool()>& condition) {
    for (int i = 0; i < 1000; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(20ms);
    }
    return false;
}

bool hasEnded(pid_t process) {
    return ::kill(process, 0) != 0 && errno == ESRCH;
}

// ---- pages

using Surface = std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)>;
using Context = std::unique_ptr<cairo_t, decltype(&cairo_destroy)>;

struct Extent {
    int left = 100'000;
    int right = -1;
    int pixels = 0;
};

/// Where on a page the pixels stand that the test takes for its own, given as 0xRRGGBB.
Extent extentOf(LaidOutDocument& document, int page, const std::function<bool(std::uint32_t)>& matches) {
    const PaperSize size = document.paperSize(page);
    const Surface surface(
        cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(size.width), static_cast<int>(size.height)),
        &cairo_surface_destroy);
    const Context context(cairo_create(surface.get()), &cairo_destroy);
    cairo_set_source_rgb(context.get(), 1, 1, 1);
    cairo_paint(context.get());
    document.drawPage(page, context.get());
    cairo_surface_flush(surface.get());
    Extent extent;
    for (int y = 0; y < cairo_image_surface_get_height(surface.get()); ++y) {
        const unsigned char* row =
            cairo_image_surface_get_data(surface.get()) + y * cairo_image_surface_get_stride(surface.get());
        for (int x = 0; x < cairo_image_surface_get_width(surface.get()); ++x) {
            std::uint32_t pixel;
            std::memcpy(&pixel, row + 4 * x, sizeof(pixel));
            if (matches(pixel & 0xFFFFFF)) {
                extent.left = std::min(extent.left, x);
                extent.right = std::max(extent.right, x);
                ++extent.pixels;
            }
        }
    }
    return extent;
}

bool isInk(std::uint32_t color) {
    return color != 0xFFFFFF;
}

std::function<bool(std::uint32_t)> isColor(std::uint32_t wanted) {
    return [wanted](std::uint32_t color) { return color == wanted; };
}

/// Neither black nor white nor between.
bool isColorful(std::uint32_t color) {
    const auto [least, most] = std::minmax({color >> 16, (color >> 8) & 0xFF, color & 0xFF});
    return most - least > 60;
}

/// What the host's own PDF of a page holds as text.
std::string pdfOf(LaidOutDocument& document) {
    std::string pdf;
    const auto append = [](void* target, const unsigned char* data, unsigned int size) {
        static_cast<std::string*>(target)->append(reinterpret_cast<const char*>(data), size);
        return CAIRO_STATUS_SUCCESS;
    };
    const PaperSize size = document.paperSize(0);
    const Surface surface(cairo_pdf_surface_create_for_stream(append, &pdf, size.width * 0.75, size.height * 0.75),
                          &cairo_surface_destroy);
    const Context context(cairo_create(surface.get()), &cairo_destroy);
    cairo_scale(context.get(), 0.75, 0.75);
    document.drawPage(0, context.get());
    cairo_show_page(context.get());
    cairo_surface_finish(surface.get());
    return pdf;
}

// ---- with a browser

/// Why no browser can be used here; empty when one can.
const std::string& obstacle() {
    static const std::string reason = []() -> std::string {
        AttendedService<Browser> browser;
        try {
            printInBrowser("<p>", kPaper, {browser.gate(), 60s});
            return "";
        } catch (const JobError& error) {
            return error.failure() == Failure::kBrowserMissing ? "there is no browser: scripts/setup --with-browser installs one"
                                                               : error.what();
        }
    }();
    return reason;
}

class InBrowser : public testing::Test {
protected:
    static void SetUpTestSuite() { s_browser = std::make_unique<AttendedService<Browser>>(); }
    static void TearDownTestSuite() { s_browser.reset(); }

    void SetUp() override {
        if (!obstacle().empty()) {
            GTEST_SKIP() << obstacle();
        }
        use(60s);
        setBuiltInEngine({});
        useHtmlEngine(HtmlEngine::kChromium);
    }

    static void use(std::chrono::seconds limit) { useBrowser({s_browser->gate(), limit}); }

    static std::unique_ptr<LaidOutDocument> layOut(const std::string& html) {
        return ternview::layOut({ternkit::kFormatHtml, html, std::nullopt}, kPaper);
    }

    /// What the browser shows of a page that no guard has looked at.
    static std::unique_ptr<LaidOutDocument> print(const std::string& html) {
        return openPdf(printInBrowser(html, kPaper, usedBrowser()), "the browser");
    }

    static void expectFailure(const std::function<void()>& action, Failure failure) {
        try {
            action();
            ADD_FAILURE() << "no failure";
        } catch (const JobError& error) {
            EXPECT_EQ(error.failure(), failure) << error.what();
        }
    }

    static std::unique_ptr<AttendedService<Browser>> s_browser;
};
std::unique_ptr<AttendedService<Browser>> InBrowser::s_browser;

TEST_F(InBrowser, DocumentsThatNeedItGoToIt) {
    struct {
        std::string what;
        std::string html;
        std::string engine;
    } const cases[] = {
        {"plain", "<p>text</p><table><tr><td>cell</table>", "embedded"},
        {"right to left", "<div dir=rtl>\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D</div>", "chromium"},
        {"flex", "<div style='display:flex'><p>a</p><p>b</p></div>", "chromium"},
        {"deep tables", repeated("<table><tr><td>", 20) + "x", "chromium"},
    };
    for (const auto& [what, html, engine] : cases) {
        useHtmlEngine(HtmlEngine::kAuto);
        const auto pages = layOut(html);
        EXPECT_EQ(pages->origin.engine, engine) << what;
        EXPECT_EQ(pages->origin.note, "") << what;
    }
    useHtmlEngine(HtmlEngine::kEmbedded);
    EXPECT_EQ(layOut(cases[2].html)->origin.engine, "embedded");
    useHtmlEngine(HtmlEngine::kChromium);
    EXPECT_EQ(layOut(cases[0].html)->origin.engine, "chromium");

    useHtmlEngine(HtmlEngine::kAuto);
    setBuiltInEngine({.hasFailed = true, .beginning = {}});
    EXPECT_EQ(layOut(cases[0].html)->origin.engine, "chromium") << "the built-in engine has failed";
    bool hasBegun = false;
    setBuiltInEngine({.hasFailed = false, .beginning = [&hasBegun] { hasBegun = true; }});
    layOut(cases[0].html);
    EXPECT_TRUE(hasBegun);
}

TEST_F(InBrowser, PagesLookAsMeant) {
    const auto flex = layOut(
        "<body style='margin:0'><div style='display:flex'><div style='flex:1;background:#ff0000'>a</div>"
        "<div style='flex:3;background:#0000ff'>b</div></div>");
    const Extent red = extentOf(*flex, 0, isColor(0xFF0000));
    const Extent blue = extentOf(*flex, 0, isColor(0x0000FF));
    EXPECT_NEAR(red.left, 50, 2);
    EXPECT_NEAR(red.right, 225, 2);
    EXPECT_NEAR(blue.left, 225, 2);
    EXPECT_NEAR(blue.right, 750, 2);

    const auto rightToLeft = layOut("<div dir=rtl>\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D</div>");
    EXPECT_GT(extentOf(*rightToLeft, 0, isInk).left, 600);

    const auto wide = layOut("<table width=2500 cellspacing=0><tr><td>left<td width=200 bgcolor='#ff0000'>.</table>");
    const Extent end = extentOf(*wide, 0, isColor(0xFF0000));
    EXPECT_NEAR(end.right, 750, 3) << "all of it fits";
    EXPECT_NEAR(end.right - end.left, 200 * 700 / 2500, 4);

    const auto many = layOut(repeated("<p style='page-break-after:always'>page</p>", 3));
    EXPECT_EQ(many->pageCount(), 3);
    EXPECT_NEAR(many->paperSize(0).width, 800, 1);
    EXPECT_NEAR(many->paperSize(0).height, 1100, 1);

    const std::string red10 =
        "<img src='data:image/png;base64,iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAIAAACQd1PeAAAADElEQVR4nGP4z8AAAAMBAQDJ"
        "/pLvAAAAAElFTkSuQmCC' width=100 height=100>";
    EXPECT_GT(extentOf(*layOut(red10), 0, isColorful).pixels, 9000);
    EXPECT_GT(extentOf(*layOut("<p style='font-size:40px'>\xF0\x9F\x8C\x8A</p>"), 0, isColorful).pixels, 100) << "emoji";
}

TEST_F(InBrowser, TextAndHarmlessLinksReachThePdf) {
    const auto pages = layOut(
        "<p>Some words <a href='http://example.org/a?b=(1)'>one</a> <a href='mailto:a@example.org'>two</a> "
        "<a href='javascript:x()'>three</a> <a href='file:///etc/passwd'>four</a>");
    const std::string pdf = pdfOf(*pages);
    EXPECT_NE(pdf.find("/URI (http://example.org/a?b=%281%29)"), std::string::npos);
    EXPECT_NE(pdf.find("/URI (mailto:a@example.org)"), std::string::npos);
    EXPECT_EQ(pdf.find("javascript"), std::string::npos);
    EXPECT_EQ(pdf.find("passwd"), std::string::npos);
}

TEST_F(InBrowser, NothingRunsAndNothingIsFetched) {
    const Listener listener;
    const PrivateDirectory directory;
    fs::permissions(directory.path(), fs::perms::owner_all | fs::perms::others_exec | fs::perms::others_read);
    std::ofstream(directory.path() + "/secret.html") << "<body bgcolor='#ff0000'>SECRET";
    const std::string& remote = listener.address();
    const std::string local = "file://" + directory.path() + "/secret.html";
    const std::vector<std::string> hostile{
        "<script>document.body.style.background='#ff0000'</script>",
        "<img src=x onerror=\"document.body.style.background='#ff0000'\">",
        "<script src='" + remote + "'></script>",
        "<meta http-equiv=refresh content='0;url=" + remote + "'>",
        "<meta http-equiv=refresh content='0;url=" + local + "'>",
        "<meta http-equiv=refresh content='0;url=data:text/html,<body bgcolor=red>'>",
        "<iframe src='" + local + "' width=500 height=500></iframe>",
        "<iframe src='" + remote + "'></iframe><object data='" + local + "' width=500 height=500></object>",
        "<iframe srcdoc=\"<script>parent.document.body.style.background='#ff0000'</script>\"></iframe>",
        "<embed src='" + local + "' width=500 height=500><portal src='" + remote + "'></portal>",
        "<img src='" + remote + "'><img src='" + local + "'><video src='" + remote + "' autoplay></video>",
        "<link rel=stylesheet href='" + remote + "'><link rel=preconnect href='" + remote + "'><link rel=prefetch href='" +
            remote + "'><link rel=dns-prefetch href='" + remote + "'>",
        "<style>@import url('" + remote + "');@font-face{font-family:f;src:url('" + remote +
            "')}p{font-family:f;background:url('" + remote + "')}</style><p>x",
        "<form action='" + remote + "'><input autofocus onfocus='form.submit()'></form>",
        "<svg><image href='" + remote + "'/><script>document.body.style.background='#ff0000'</script></svg>",
    };
    for (const std::string& html : hostile) {
        const auto pages = print("<body><p>body</p>" + html + "</body>");
        EXPECT_GT(extentOf(*pages, 0, isInk).pixels, 0) << html;
        EXPECT_EQ(extentOf(*pages, 0, isColor(0xFF0000)).pixels, 0) << html;
    }
    EXPECT_FALSE(listener.wasCalled());
}

TEST_F(InBrowser, TheProcessIsConfined) {
    print("<p>x");
    const std::vector<pid_t> browsers = withArguments(s_browser->processId(), {"--remote-debugging-pipe"});
    ASSERT_FALSE(browsers.empty());  // it is the first: what it forks has its arguments for a moment
    const std::string browser = "/proc/" + std::to_string(browsers.front());
    EXPECT_EQ(argumentsOf(browsers.front()).find("--no-sandbox"), std::string::npos);
    const std::string status = readFile(browser + "/status");
    EXPECT_NE(status.find("NoNewPrivs:\t1"), std::string::npos);
    EXPECT_NE(status.find("CapEff:\t0000000000000000"), std::string::npos);
    EXPECT_EQ(status.find("Uid:\t0"), std::string::npos);
    for (const char* space : {"net", "mnt", "pid", "user"}) {
        EXPECT_NE(fs::read_symlink(browser + "/ns/" + space), fs::read_symlink(std::string("/proc/self/ns/") + space)) << space;
    }
    // Only root may look at a process's files from outside.
    std::error_code error;
    if (fs::exists(browser + "/root/usr", error)) {
        EXPECT_FALSE(fs::exists(browser + "/root/home", error));
        EXPECT_FALSE(fs::exists(browser + "/root/etc/passwd", error));
        EXPECT_TRUE(fs::exists(browser + "/root/etc/fonts", error));
    }
}

TEST_F(InBrowser, EndlessPagesStayWithinLimits) {
    EXPECT_LE(print("<div style='height:2000000000px;border:1px solid'>x</div>")->pageCount(), 2000);
    EXPECT_GE(print("<div style='width:2000000000px;border:1px solid'>x</div>")->pageCount(), 1);

    use(2s);
    for (const std::string& html :
         {repeated("<div>", 200'000), repeated("<p>line</p>", 1'000'000), repeated("<b><i>", 200'000)}) {
        try {
            EXPECT_LE(print(html)->pageCount(), 2000);
        } catch (const JobError& error) {
            EXPECT_EQ(error.failure(), Failure::kTimeLimit);
        } catch (const BrowserRefusal&) {
            // Its page crashed.
        }
    }
    use(60s);
    EXPECT_NE(loadErrorOf([] { print(std::string(std::size_t{100} << 20, 'x')); }).find("too large"), std::string::npos);
    EXPECT_EQ(print("<p>after all")->pageCount(), 1);
}

TEST_F(InBrowser, AnEndedProcessIsOneFailureAndIsStartedAnew) {
    const std::string slow = repeated("<table><tr><td>a document that takes its time</table>", 200'000);
    const std::vector<std::vector<std::string>> victims{{"--remote-debugging-pipe"}, {"--type=renderer"}, {"ternview-browser"}};
    for (const auto& victim : victims) {
        EXPECT_EQ(print("<p>warm")->pageCount(), 1);
        std::thread killer([&victim] {
            // Another process may have taken the service's place only just now.
            ASSERT_TRUE(waitUntil([] { return !withArguments(s_browser->processId(), {"--type=renderer"}).empty(); }));
            for (const pid_t process : withArguments(s_browser->processId(), victim)) {
                ::kill(process, SIGKILL);
            }
        });
        EXPECT_NE(loadErrorOf([&slow] { print(slow); }).find("the browser"), std::string::npos) << victim[0];
        killer.join();
        EXPECT_EQ(print("<p>again")->pageCount(), 1) << victim[0];
    }
    // Ended while idle: nobody notices.
    const pid_t service = s_browser->processId();
    ::kill(withArguments(service, {"--remote-debugging-pipe"}).at(0), SIGKILL);
    EXPECT_TRUE(waitUntil([service] { return s_browser->processId() != service; }));
    EXPECT_EQ(print("<p>and again")->pageCount(), 1);
}

TEST_F(InBrowser, NothingIsLeftBehind) {
    const PrivateDirectory directory;
    const fs::path runtime = fs::path(directory.path()) / "runtime";
    fs::create_directory(runtime);
    const char* before = std::getenv("XDG_RUNTIME_DIR");
    const std::string restored = before != nullptr ? before : "";
    ::setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    std::vector<pid_t> family;
    for (const bool succeeds : {true, false}) {
        AttendedService<Browser> browser;
        useBrowser({browser.gate(), 2s});
        try {
            printInBrowser(succeeds ? "<p>x" : repeated("<div>", 200'000), kPaper, usedBrowser());
        } catch (const std::exception&) {
            EXPECT_FALSE(succeeds);
        }
        const std::vector<pid_t> more = familyOf(browser.processId());
        family.insert(family.end(), more.begin(), more.end());
        EXPECT_TRUE(!succeeds || !more.empty());
    }
    EXPECT_TRUE(std::all_of(family.begin(), family.end(), hasEnded));
    EXPECT_TRUE(fs::is_empty(runtime));
    before != nullptr ? ::setenv("XDG_RUNTIME_DIR", restored.c_str(), 1) : ::unsetenv("XDG_RUNTIME_DIR");
}

// ---- a browser that is no browser

class OtherBrowser : public InBrowser {
protected:
    void SetUp() override {
        InBrowser::SetUp();
        fs::permissions(directory_.path(), fs::perms::owner_all | fs::perms::others_exec | fs::perms::others_read);
        ::setenv("TERNVIEW_BROWSER", program().c_str(), 1);
        browser_ = std::make_unique<AttendedService<Browser>>();
        use(60s);
    }
    void TearDown() override { ::unsetenv("TERNVIEW_BROWSER"); }

    void use(std::chrono::seconds limit) const { useBrowser({browser_->gate(), limit}); }
    fs::path program() const { return fs::path(directory_.path()) / "browser"; }

    void behaveAs(const std::string& script) {
        std::ofstream(program()) << "#!/bin/sh\n" << script;
        fs::permissions(program(), fs::perms::owner_all | fs::perms::others_exec | fs::perms::others_read);
    }

private:
    PrivateDirectory directory_;
    std::unique_ptr<AttendedService<Browser>> browser_;
};

TEST_F(OtherBrowser, NonsenseFromItIsOneFailure) {
    for (const std::string script :
         {"exit 0", "printf 'no JSON\\0' >&4; sleep 100", "printf '[]\\0' >&4; sleep 100",
          "printf '{\"id\":\"1\"}\\0' >&4; sleep 100", "printf '{\"id\":1,\"error\":5}\\0' >&4; sleep 100", "yes >&4"}) {
        behaveAs(script);
        EXPECT_NE(loadErrorOf([] { layOut("<p>x"); }).find("the browser cannot lay it out"), std::string::npos) << script;
    }
    behaveAs("while printf '{\"id\":1,\"result\":{}}\\0' >&4; do :; done");
    use(2s);
    expectFailure([] { layOut("<p>x"); }, Failure::kTimeLimit);

    behaveAs("exit 0");
    useHtmlEngine(HtmlEngine::kAuto);
    const auto pages = layOut("<div style='display:flex'>x</div>");
    EXPECT_EQ(pages->origin.engine, "embedded");
    EXPECT_NE(pages->origin.note.find("failed: the browser"), std::string::npos) << pages->origin.note;
}

// ---- without a browser

TEST(NoBrowser, IsNamedWhenItIsDemandedAndNotMissedOtherwise) {
    ::setenv("TERNVIEW_BROWSER", "/nonexistent/browser", 1);
    EXPECT_FALSE(installedBrowser());
    const std::string flex = "<div style='display:flex'>x</div>";
    const HandedDocument document{ternkit::kFormatHtml, flex, std::nullopt};
    setBuiltInEngine({});
    useHtmlEngine(HtmlEngine::kAuto);
    const auto pages = layOut(document, kPaper);
    EXPECT_EQ(pages->origin.engine, "embedded");
    EXPECT_EQ(pages->origin.note, "");
    useHtmlEngine(HtmlEngine::kChromium);
    try {
        layOut(document, kPaper);
        ADD_FAILURE() << "no error";
    } catch (const JobError& error) {
        EXPECT_EQ(error.failure(), Failure::kBrowserMissing);
        EXPECT_STREQ(error.what(), "/nonexistent/browser");
    }
    ::unsetenv("TERNVIEW_BROWSER");
}

TEST(LinkTarget, LeadsToTheWebOrToMail) {
    struct {
        std::string address;
        std::string expected;
    } const cases[] = {
        {"http://example.org/a?b=c&d=%20#e", "http://example.org/a?b=c&d=%20#e"},
        {"HTTPS://example.org/", "HTTPS://example.org/"},
        {"mailto:a@example.org", "mailto:a@example.org"},
        {"http://example.org/') /S /JavaScript (\\\n\xC3\xA9", "http://example.org/%27%29%20/S%20/JavaScript%20%28%5C%C3%A9"},
        {"javascript:alert(1)", ""},
        {"file:///etc/passwd", ""},
        {"http:example.org", ""},
        {"", ""},
        {"http://example.org/" + std::string(10000, 'x'), ""},
    };
    for (const auto& [address, expected] : cases) {
        EXPECT_EQ(linkTarget(address), expected);
    }
}

TEST(PaintedEmoji, AreThoseOfTheText) {
    const std::string wave = "\xF0\x9F\x8C\x8A";
    const std::string variant = "\xEF\xB8\x8F";
    const std::string begin = "<span style=\"filter:opacity(1)\">";
    const std::string end = "</span>";
    struct {
        std::string html;
        std::string expected;
    } const cases[] = {
        {"<p>no 1 # \xE2\x98\x8E \xE4\xBD\xA0 &amp;</p>", "<p>no 1 # \xE2\x98\x8E \xE4\xBD\xA0 &amp;</p>"},
        {"a" + wave + wave + "b", "a" + begin + wave + wave + end + "b"},
        {"1" + variant + "\xE2\x83\xA3.", begin + "1" + variant + "\xE2\x83\xA3" + end + "."},
        {"\xE2\x98\x8E" + variant, begin + "\xE2\x98\x8E" + variant + end},
        {"&amp;" + variant + "<" + variant + ">", "&amp;" + variant + "<" + variant + ">"},
        {"<a title=\"" + wave + ">\">" + wave + "</a>", "<a title=\"" + wave + ">\">" + begin + wave + end + "</a>"},
        {"<style>a{content:'" + wave + "'}</style><title>" + wave + "</title>",
         "<style>a{content:'" + wave + "'}</style><title>" + wave + "</title>"},
        {wave.substr(0, 3) + "<" + wave, wave.substr(0, 3) + "<" + wave},
    };
    for (const auto& [html, expected] : cases) {
        EXPECT_EQ(withPaintedEmoji(html), expected) << html;
    }
}

// ---- a worker that the built-in engine is the end of

class Outputs final : public OutputReceiver {
public:
    void begin(FrameKind, std::string_view) override { ++count; }
    void data(std::string_view) override {}
    void end() override {}
    int count = 0;
};

/// Runs a task in a worker until there is a result.
JobResult resultOf(const WorkerTask& task, Outputs& outputs, std::chrono::seconds limit) {
    Services services;
    const PrivateDirectory directory;
    WorkerProcess worker(task, services, outputs, {directory.path(), limit});
    while (true) {
        std::vector<pollfd> watched{{worker.descriptor(), POLLIN, 0}};
        waitForAny(watched, worker.deadline());
        if (const std::optional<JobResult> result = worker.attend()) {
            return *result;
        }
    }
}

TEST(BuiltInEngine, ThatFailsIsFollowedByOneMoreWorker) {
    const SharedValue<std::atomic<std::size_t>> attempts;
    const auto layout = [](FrameWriter& out) { out.send(FrameKind::kBuiltInLayout, {}); };
    const auto output = [](FrameWriter& out) {
        out.begin(FrameKind::kPdf);
        out.end();
    };
    const auto crash = [](FrameWriter&) { ::_exit(1); };
    const auto hang = [](FrameWriter&) { ::pause(); };
    const auto finish = [](FrameWriter& out) { out.result(packResult({})); };
    using Steps = std::vector<std::function<void(FrameWriter&)>>;
    struct {
        std::string what;
        std::array<Steps, 2> attempts;
        std::size_t expectedAttempts;
        Failure expected;
    } const cases[] = {
        {"crash", {Steps{layout, crash}, Steps{output, finish}}, 2, Failure::kNone},
        {"hang", {Steps{layout, hang}, Steps{output, finish}}, 2, Failure::kNone},
        {"crash twice", {Steps{layout, crash}, Steps{layout, crash}}, 2, Failure::kCrash},
        {"crash elsewhere", {Steps{crash}, Steps{finish}}, 1, Failure::kCrash},
        {"crash with an output", {Steps{layout, output, crash}, Steps{finish}}, 1, Failure::kCrash},
        {"no crash", {Steps{layout, output, finish}, Steps{crash}}, 1, Failure::kNone},
    };
    for (const auto& [what, steps, expectedAttempts, expected] : cases) {
        *attempts = 0;
        const auto task = [&](FrameWriter& out) {
            for (const auto& step : steps.at((*attempts)++)) {
                step(out);
            }
        };
        Outputs outputs;
        EXPECT_EQ(resultOf(task, outputs, 2s).failure, expected) << what;
        EXPECT_EQ(*attempts, expectedAttempts) << what;
    }
}

// ---- the program

class ProgramWithBrowser : public TernviewProgram {
protected:
    std::string mail(const std::string& html) { return mime::Html(html + "\r\n").addressed().bytes(); }
};

TEST_F(ProgramWithBrowser, TellsWhichEngineMadeThePages) {
    write("mail.eml", mail("<div dir=rtl>\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D</div>"));
    const auto engineOf = [this](const std::string& options, const std::string& prefix) {
        const Outcome outcome = run("info mail.eml --json " + options, prefix);
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
        EXPECT_EQ(outcome.err, "");
        return nlohmann::json::parse(outcome.out).value("htmlEngine", "");
    };
    if (obstacle().empty()) {
        EXPECT_EQ(engineOf("", ""), "chromium");
    }
    EXPECT_EQ(engineOf("--html-engine embedded", ""), "embedded");
    EXPECT_EQ(engineOf("", "TERNVIEW_BROWSER=/nonexistent"), "embedded");

    const Outcome missing = run("render mail.eml --html-engine chromium -o mail.pdf", "TERNVIEW_BROWSER=/nonexistent");
    EXPECT_EQ(missing.exitCode, 3);
    EXPECT_NE(missing.err.find("chromium-headless-shell"), std::string::npos) << missing.err;
    EXPECT_NE(missing.err.find("scripts/setup --with-browser"), std::string::npos) << missing.err;

    const Outcome broken = run("render mail.eml -o mail.pdf", "TERNVIEW_BROWSER=/bin/false");
    EXPECT_EQ(broken.exitCode, 0);
    EXPECT_NE(broken.err.find("a browser would show it better, but failed"), std::string::npos) << broken.err;
    EXPECT_EQ(std::count(broken.err.begin(), broken.err.end(), '\n'), 1);
    EXPECT_EQ(run("info mail.eml --html-engine netscape").exitCode, 2);
}

TEST_F(ProgramWithBrowser, LeavesNothingBehindWhenASignalEndsIt) {
    if (!obstacle().empty()) {
        GTEST_SKIP() << obstacle();
    }
    write("mail.eml", mail(repeated("<table><tr><td>a document that takes its time</table>", 200'000)));
    const std::string runtime = work("../runtime").string();
    const std::string file = work("mail.eml").string();
    const pid_t program = ::fork();
    if (program == 0) {
        ::setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
        ::execl(TERNVIEW_PROGRAM, TERNVIEW_PROGRAM, "info", file.c_str(), "--html-engine", "chromium", nullptr);
        ::_exit(127);
    }
    std::vector<pid_t> family;
    const bool isAtWork = waitUntil([&] {
        family = familyOf(program);
        return family.size() >= 6;  // worker, service, its confined half, browser, and the browser's own
    });
    EXPECT_TRUE(isAtWork) << "the browser did not start";
    ::kill(program, SIGTERM);
    int status = 0;
    ::waitpid(program, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    EXPECT_TRUE(std::all_of(family.begin(), family.end(), hasEnded));
}

}  // namespace
