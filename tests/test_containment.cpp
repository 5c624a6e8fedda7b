// What a hostile message cannot reach through the program, and what the program leaves behind however it ends: nothing.

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/landlock.h>
#include <linux/seccomp.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "confinement.h"
#include "json_output.h"
#include "mime_builder.h"
#include "msg_builder.h"
#include "private_directory.h"
#include "rtf_compressor.h"
#include "service_test.h"
#include "shared_value.h"
#include "stale_files.h"
#include "store_builder.h"
#include "ternview_program.h"
#include "test_host_html.h"
#include "walled_off.h"
#include "worker_process.h"

namespace {

namespace fs = std::filesystem;
using namespace std::literals;
using nlohmann::json;

std::string asString(const builder::Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

builder::Bytes asBytes(const std::string& text) {
    return {text.begin(), text.end()};
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

// ---- workers

class NoOutputs final : public ternview::OutputReceiver {
public:
    void begin(ternview::FrameKind, std::string_view) override {}
    void data(std::string_view) override {}
    void end() override {}
};

/// Runs a task as the commands do that render, export and make thumbnails.
enum class Program { Attends, LooksAwayUntilItEnds };

ternview::JobResult resultOf(const ternview::WorkerTask& task, std::chrono::seconds limit = 60s,
                             Program program = Program::Attends) {
    ternview::Services services;
    NoOutputs outputs;
    const ternview::PrivateDirectory directory;
    ternview::WorkerProcess worker(task, services, outputs, {directory.path(), limit});
    while (true) {
        std::vector<pollfd> watched{{worker.descriptor(), POLLIN, 0}};
        worker.postpone(
            ternview::waitForAny(watched, program == Program::Attends ? std::optional(worker.deadline()) : std::nullopt));
        if (std::optional<ternview::JobResult> result = worker.attend()) {
            return *result;
        }
    }
}

std::string saidBy(const std::function<std::string()>& task) {
    return resultOf([&task](ternview::FrameWriter& out) {
               ternview::JobResult result;
               result.detail = task();
               out.result(packResult(result));
           })
        .detail;
}

class Contained : public TernviewProgram {
protected:
    fs::path runtime() const { return work("../runtime"); }
    /// Has a reader say what it could get at.
    Outcome listByStandIn() {
        write("look.pst", "!BDN and more");
        return run("list look.pst --json", "TERNMAIL_BATCH_LIBRARY='" BATCH_STAND_IN "'");
    }
};

TEST_F(Contained, WorkersHaveNoWayOut) {
    const auto byChild = [program = ::getpid()] {  // such as a worker's own, for vector pictures
        std::array<int, 2> ends{};
        if (::pipe(ends.data()) != 0) {
            return "no pipe"s;
        }
        if (const pid_t child = ::fork(); child == 0) {
            const std::string ways = waysOut(program) + ".";
            ::_exit(::write(ends[1], ways.data(), ways.size()) > 0 ? 0 : 1);
        }
        std::string answer(1000, '\0');
        answer.resize(static_cast<std::size_t>(std::max<ssize_t>(0, ::read(ends[0], answer.data(), answer.size()))));
        return answer;
    };
    EXPECT_NE(byChild().find("IPv4, IPv4 datagrams"), std::string::npos) << "open for everybody else";
    EXPECT_EQ(saidBy([] { return waysOut(); }), "");
    EXPECT_EQ(saidBy(byChild), ".");
    EXPECT_EQ(saidBy([] { return std::to_string(::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0)); }), "1");
    const int inherited = ::fcntl(ternview::Descriptor(::socket(AF_INET, SOCK_DGRAM, 0)).get(), F_DUPFD, 500);
    EXPECT_EQ(saidBy([inherited] { return std::to_string(::fcntl(inherited, F_GETFD)); }), "-1") << "nothing is handed on";
    ::close(inherited);
    const Outcome list = listByStandIn();
    ASSERT_EQ(list.exitCode, 0) << list.err;
    EXPECT_EQ(json::parse(list.out)["subject"], "");
}

TEST_F(Contained, WorkersReachNoFilesButTheirOwn) {
    const long landlock = ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    if (landlock < 3) {
        GTEST_SKIP() << "this kernel cannot keep programs from files, or not from all that can be done to them";
    }
    write("kept", "a secret");
    write("lost", "");
    const std::string directory = work("").string();
#ifdef __SANITIZE_ADDRESS__  // the sanitizer reads the memory map
    const std::string expected = "processes";
#else
    const std::string expected;
#endif
    EXPECT_EQ(saidBy([&directory] { return waysToFiles(directory); }), expected);
    const Outcome list = listByStandIn();
    ASSERT_EQ(list.exitCode, 0) << list.err;
    EXPECT_EQ(json::parse(list.out)["from"], expected);
    EXPECT_EQ(readFile(work("kept")), "a secret");
    const std::string ways = waysToFiles(directory);
    EXPECT_EQ(std::count(ways.begin(), ways.end(), ','), 19) << ways << " are open for everybody else";

    EXPECT_EQ(saidBy([] {
                  const fs::path own = fs::path(std::getenv("XDG_RUNTIME_DIR")) / "own";
                  std::ofstream(own) << "its own";
                  return readFile(own);
              }),
              "its own");
}

TEST_F(Contained, WorkersReadAllThatTheyNeed) {
    std::string names;
    for (int i = 0; i < 100; ++i) {
        names += " " + std::to_string(i) + ".eml";
        write(std::to_string(i) + ".eml", "Subject: a\r\n\r\ntext\r\n");
    }
    const Outcome list = run("list --json" + names, "prlimit --nofile=80");
    EXPECT_EQ(list.exitCode, 0) << list.err;
    EXPECT_EQ(std::count(list.out.begin(), list.out.end(), '\n'), 100);

    fs::path font;
    for (const auto& entry : fs::recursive_directory_iterator("/usr/share/fonts")) {
        font = entry.path().extension() == ".ttf" ? entry.path() : font;
    }
    ASSERT_FALSE(font.empty());
    fs::create_directories(work("linked"));
    fs::create_directories(work("elsewhere"));
    fs::copy_file(font, work("elsewhere/a.ttf"));
    fs::create_symlink(work("elsewhere/a.ttf"), work("linked/a.ttf"));
    for (const char* directory : {"linked", "elsewhere"}) {
        write("fonts.conf", "<?xml version='1.0'?><fontconfig><dir>" + work(directory).string() + "</dir></fontconfig>");
        const Outcome page = run("render 0.eml -o "s + directory + ".png", "FONTCONFIG_FILE=fonts.conf");
        EXPECT_EQ(page.exitCode, 0) << page.err;
    }
    EXPECT_EQ(readFile(work("linked.png")), readFile(work("elsewhere.png")));
}

TEST_F(Contained, WorkersEndWhatTheyHaveBegun) {
    write("html.eml",
          "Subject: a\r\nMIME-Version: 1.0\r\nContent-Type: text/html\r\n\r\n<html><body><p>text</p></body></html>\r\n");
    while (::waitpid(-1, nullptr, 0) > 0) {  // of other tests
    }
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), 0);
    const std::string embedded = " --html-engine embedded";
    for (const std::string& command :
         {"info html.eml" + embedded, "export html.eml -o out" + embedded, "thumbnail html.eml a.png 256"s}) {
        const Outcome outcome = run(command);
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
        EXPECT_EQ(::waitpid(-1, nullptr, 0), -1) << command << " has left somebody else a process";
    }
    ::prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0);
}

TEST_F(Contained, WorkersHaveLimits) {
    const auto limits = [] {
        std::string text;
        for (const auto resource : {RLIMIT_CORE, RLIMIT_FSIZE, RLIMIT_AS}) {
            struct rlimit limit {};
            ::getrlimit(resource, &limit);
            text += std::to_string(limit.rlim_cur >> 20) + "/" + std::to_string(limit.rlim_max >> 20) + " ";
        }
        return text;
    };
#ifdef __SANITIZE_ADDRESS__  // the sanitizer's own memory map does not fit any limit
    EXPECT_EQ(saidBy(limits).substr(0, 14), "0/0 1024/1024 ");
#else
    EXPECT_EQ(saidBy(limits), "0/0 1024/1024 2048/2048 ");
    const auto memoryFor = [](std::uint64_t bytes) {
        return saidBy([bytes] {
            ternview::limitMemoryBySize(std::uint64_t{1} << 40);
            ternview::limitMemoryBySize(bytes);
            struct rlimit limit {};
            ::getrlimit(RLIMIT_DATA, &limit);
            return std::to_string(limit.rlim_cur >> 20);
        });
    };
    EXPECT_EQ(memoryFor(1'000'000), "511");
    EXPECT_EQ(memoryFor(~std::uint64_t{0}), "2048");
    EXPECT_EQ(saidBy([] {
                  try {
                      return std::to_string(std::make_unique_for_overwrite<char[]>(std::size_t{3} << 30)[5]);
                  } catch (const std::bad_alloc&) {
                      return "refused"s;
                  }
              }),
              "refused");
#endif
    EXPECT_EQ(saidBy([] {
                  const std::string file = std::getenv("XDG_RUNTIME_DIR") + "/large"s;
                  const ternview::Descriptor large(::open(file.c_str(), O_RDWR | O_CREAT, 0600));
                  return ::pwrite(large.get(), "x", 1, off_t{1} << 30) < 0 && errno == EFBIG ? "refused"s : "written"s;
              }),
              "refused");
    EXPECT_EQ(saidBy([] {
                  const auto limit = [] {
                      struct rlimit processorTime {};
                      ::getrlimit(RLIMIT_CPU, &processorTime);
                      return std::to_string(processorTime.rlim_cur) + " ";
                  };
                  std::string text;
                  for (const std::uint64_t bytes : {999'999, 3'000'000, 90'000'000}) {
                      ternview::limitProcessorTime(60s);
                      ternview::limitProcessorTimeBySize(bytes);
                      text += limit();
                      ternview::limitProcessorTime(30s);  // for a part of it
                      text += limit();
                  }
                  return text;
              }),
              "10 10 40 31 61 31 ");
    const auto flood = [](ternview::FrameWriter& out) {
        while (true) {
            out.send(ternview::FrameKind::kBuiltInLayout, {});
        }
    };
    EXPECT_THROW(resultOf(flood), ternview::JobError);
    // The program's clock comes first; a worker whose program is held up has one of its own.
    const auto endless = [](ternview::FrameWriter&) {
        for (volatile bool isEndless = true; isEndless;) {
        }
    };
    EXPECT_EQ(resultOf(endless, 1s).failure, ternview::Failure::kTimeLimit);
    const ternview::JobResult late = resultOf(endless, 1s, Program::LooksAwayUntilItEnds);
    EXPECT_EQ(late.failure, ternview::Failure::kTimeLimit);
    EXPECT_EQ(late.detail, "SIGXCPU");
}

#ifndef __SANITIZE_ADDRESS__
/// A picture as large as pictures may be, a drawing that needs many of its own size, and elements without end.
TEST_F(Contained, NoProcessHoldsMuchForASmallMail) {
    constexpr std::size_t kSmall = 999'000;
    constexpr long kMostKibibytes = 600'000'000 / 1024;
    std::string drawing =
        "<svg xmlns='http://www.w3.org/2000/svg' width='2000' height='2000'><filter id='f' x='0' y='0' width='1' height='1'>";
    std::string merged;
    for (int layer = 0; layer < 13; ++layer) {
        const std::string name = "r" + std::to_string(layer);
        drawing += "<feFlood flood-color='#" + std::to_string(100 + layer) + "' result='" + name + "'/>";
        merged += "<feMergeNode in='" + name + "'/>";
    }
    drawing += "<feMerge>" + merged + "</feMerge></filter><rect width='2000' height='2000' filter='url(#f)'/></svg>";
    std::string mail = "Subject: large\r\nMIME-Version: 1.0\r\nContent-Type: text/html\r\n\r\n<html><body>\r\n";
    for (const auto& [type, bytes] : {std::pair("png", html_test::png(5200, 5200, 0x804020)), std::pair("svg+xml", drawing)}) {
        mail += "<img src='data:image/"s + type + ";base64,\r\n" + mime::Base64(bytes) + "'>\r\n";
    }
    while (mail.size() < kSmall) {
        mail += "<hr><hr><hr><hr><hr><hr><hr><hr><hr><hr>\r\n";
    }
    write("large.eml", mail);
    const Outcome outcome = run("info large.eml --html-engine embedded");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;

    // Five header texts in the same sectors make the document many times as large as its file.
    std::string rows;
    for (int row = 0; row < 110'000; ++row) {
        rows += "\\trowd\\cellx900 x\\cell\\row ";
    }
    msg::MsgBuilder item;
    std::string text;
    while (text.size() < 3 * kSmall / 4) {
        text += "\xE4\xB8\xAD\xE0\xB8\x81";
    }
    constexpr std::array<std::uint16_t, 4> kOthers{msg::kSenderName, msg::kDisplayTo, msg::kDisplayCc, msg::kDisplayBcc};
    for (const std::uint16_t id : kOthers) {
        item.text(id, "Ann");
    }
    item.text(msg::kSubject, text)
        .binary(msg::kRtfCompressed, rtf::Compressed("{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}} " + rows + "\\pard x}"));
    compound::CompoundImage image = item.image();
    const auto entryOf = [&image](std::uint16_t id) { return image.entryOf(msg::StreamName(id, msg::kUnicode)); };
    for (const std::uint16_t id : kOthers) {
        for (const std::size_t field : {compound::kEntryStart, compound::kEntrySize}) {
            image.put32(entryOf(id) + field, image.get32(entryOf(msg::kSubject) + field));
        }
    }
    ASSERT_LT(image.bytes.size(), kSmall);
    write("shared.msg", image.bytes);
    run("info shared.msg");

    struct rusage used {};
    ::getrusage(RUSAGE_CHILDREN, &used);
    EXPECT_LE(used.ru_maxrss, kMostKibibytes);
}
#endif

TEST_F(Contained, TimeInWhichTheProgramIsStoppedDoesNotCount) {
    const SharedValue<std::atomic<bool>> isStarted;
    const SharedValue<std::atomic<bool>> goesOn;
    const auto task = [&isStarted, &goesOn](ternview::FrameWriter& out) {
        *isStarted = true;
        waitUntil([&goesOn] { return goesOn->load(); });
        out.result(ternview::packResult({}));
    };
    const pid_t program = ::fork();
    if (program == 0) {
        ::_exit(static_cast<int>(resultOf(task, 2s).failure));
    }
    EXPECT_TRUE(waitUntil([&isStarted] { return isStarted->load(); }));
    ::kill(program, SIGSTOP);
    std::this_thread::sleep_for(3s);
    ::kill(program, SIGCONT);
    std::this_thread::sleep_for(200ms);  // it looks at its clock before it gets the result
    *goesOn = true;
    int status = -1;
    ::waitpid(program, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), static_cast<int>(ternview::Failure::kNone));
}

/// Refuses system-call filters, namespaces and closing many descriptors at once, as some containers do.
void forbidWalls() {
    const auto refuse = [](std::uint32_t number) {
        return std::vector<sock_filter>{BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
                                        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM)};
    };
    std::vector<sock_filter> filter{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const long number : {SYS_seccomp, SYS_unshare, SYS_close_range}) {
        const auto part = refuse(static_cast<std::uint32_t>(number));
        filter.insert(filter.end(), part.begin(), part.end());
    }
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_prctl, 0, 3));
    filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args)));
    const auto part = refuse(PR_SET_SECCOMP);
    filter.insert(filter.end(), part.begin(), part.end());
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0);
}

TEST_F(Contained, AMissingWallIsToldOnce) {
    for (const int number : {1, 2, 3}) {
        write(std::to_string(number) + ".eml", mime::Plain("Hello").addressed().bytes());
    }
    const pid_t child = ::fork();
    if (child == 0) {
        forbidWalls();
        const int inherited = ::fcntl(STDERR_FILENO, F_DUPFD, 500);
        const bool isHandedOn = saidBy([inherited] { return std::to_string(::fcntl(inherited, F_GETFD)); }) != "-1";
        ::_exit(isHandedOn ? 9 : run("export 1.eml 2.eml 3.eml -o out --format txt -j 2").exitCode);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    const std::string said = readFile(work("../err"));
    EXPECT_TRUE(said.starts_with("ternview: this system lets programs give up neither")) << said;
    EXPECT_EQ(said.find("ternview: this system", 1), std::string::npos) << said;
}

// ---- what messages name

/// Notices whether anybody opens files of a directory.
class Watched {
public:
    explicit Watched(const fs::path& directory) : notices_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        EXPECT_GE(::inotify_add_watch(notices_.get(), directory.c_str(), IN_OPEN | IN_ACCESS), 0);
    }
    /// Since the last time that this was asked.
    bool wasOpened() const {
        std::array<char, 4096> events;
        bool any = false;
        while (::read(notices_.get(), events.data(), events.size()) > 0) {
            any = true;
        }
        return any;
    }

private:
    ternview::Descriptor notices_;
};

struct Source {
    std::string name;
    std::string bytes;
};

/// The same body as each kind of file has it.
std::vector<Source> htmlMails(const std::string& html) {
    builder::StoreBuilder store(builder::Layout::Unicode, builder::Encoding::Permutative);
    store.addFolder("Inbox").addMessage({.subject = "Pictures", .htmlBody = html});
    msg::MsgBuilder item;
    item.text(msg::kSubject, "Pictures").binary(msg::kRtfCompressed, rtf::Stored(msg::HtmlInRtf(html)));
    return {{"mail.eml", mime::Html(html + "\r\n").addressed().bytes()},
            {"mail.pst", asString(store.bytes())},
            {"mail.msg", item.bytes()}};
}

std::vector<Source> rtfMails(const std::string& rtfText) {
    const std::string compressed = rtf::Compressed(rtfText);
    builder::StoreBuilder store(builder::Layout::Unicode, builder::Encoding::Permutative);
    store.addFolder("Inbox").addMessage({.subject = "Fields", .rtfCompressed = asBytes(compressed)});
    msg::MsgBuilder item;
    item.text(msg::kSubject, "Fields").binary(msg::kRtfCompressed, compressed);
    return {{"mail.pst", asString(store.bytes())}, {"mail.msg", item.bytes()}};
}

TEST_F(Contained, ReferencesReachNothing) {
    const fs::path secrets = work("secrets");
    write("secrets/picture.png", "no picture");
    write("secrets/text.rtf", "{\\rtf1 SECRET}");
    const Watched watched(secrets);
    readFile(secrets / "picture.png");
    ASSERT_TRUE(watched.wasOpened()) << "it would be noticed";
    const ternview::Listener listener;
    const std::string remote = listener.address();
    const std::string picture = (secrets / "picture.png").string();
    std::string html = "<html><body><p>Hello</p>";
    const std::string host = remote.substr(remote.find("//"));  // "//127.0.0.1:port/p.png"
    for (const std::string& address : {picture, "file:" + picture, "file://" + picture, "file://localhost" + picture,
                                       "../" + (work().filename() / "secrets/picture.png").string(), "secrets/picture.png"s,
                                       remote, host, "\\\\127.0.0.1\\share\\p.png"s, "ftp:" + host}) {
        html += "<img src=\"" + address + "\"><p style=\"background:url('" + address + "')\">x</p><link rel=stylesheet href=\"" +
                address + "\"><iframe src=\"" + address + "\"></iframe><object data=\"" + address + "\"></object>";
        html += "<img src=\"data:image/svg+xml;base64," +
                mime::Base64(
                    "<svg xmlns='http://www.w3.org/2000/svg' xmlns:xlink='http://www.w3.org/1999/xlink' width='9' "
                    "height='9'><image width='9' height='9' xlink:href='" +
                    address + "'/></svg>") +
                "\">";
    }
    html += "</body></html>";
    const std::string rtfAddress = (secrets / "text.rtf").string();
    const auto field = [](const std::string& instruction) {
        return "{\\field{\\*\\fldinst " + instruction + "}{\\fldrslt seen}}";
    };
    const std::string rtfText = "{\\rtf1\\ansi{\\fonttbl{\\f0\\fswiss Arial;}}{\\*\\template " + rtfAddress + "}{\\*\\template " +
                                remote + "}\r\n\\pard\\plain\\f0 Hello " + field("INCLUDETEXT \"" + rtfAddress + "\"") +
                                field("INCLUDEPICTURE \"" + picture + "\" \\\\d") +
                                field("INCLUDEPICTURE \"" + remote + "\" \\\\d") +
                                "{\\object\\objautlink\\objupdate{\\*\\objclass Word.Document.8}{\\*\\objalias " + rtfAddress +
                                "}{\\*\\objdata 0105000001000000}{\\result seen}}\\par}";
    std::vector<Source> sources = htmlMails(html);
    for (const Source& source : rtfMails(rtfText)) {
        sources.push_back({"rtf-" + source.name, source.bytes});
    }
    for (const auto& [name, bytes] : sources) {
        write(name, bytes);
        for (const char* options : {"--temp-files --html-engine embedded", "--no-temp-files --html-engine embedded", ""}) {
            const Outcome outcome = run("render "s + name + " -o page.pdf " + options);
            EXPECT_EQ(outcome.exitCode, 0) << name << outcome.err;
            EXPECT_FALSE(watched.wasOpened()) << name << ' ' << options;
            EXPECT_FALSE(listener.wasCalled()) << name << ' ' << options;
        }
        ASSERT_EQ(std::system(("pdftotext '" + work("page.pdf").string() + "' '" + work("page.txt").string() + "'").c_str()), 0);
        const std::string text = readFile(work("page.txt"));
        EXPECT_NE(text.find("Hello"), std::string::npos) << name << text;
        EXPECT_EQ(text.find("SECRET"), std::string::npos) << name;
    }
}

TEST_F(Contained, AttachmentsStayInside) {
    const std::string outside = work("outside.png").string();
    for (const std::string& name : {"../../outside.png"s, outside, "..\\..\\outside.png"s, "sub/x.png"s, ".."s, "/"s}) {
        builder::StoreBuilder store(builder::Layout::Unicode, builder::Encoding::Permutative);
        const std::string html = "<html><body>Hello <img src=\"cid:1@x\"> <img src=\"" + name + "\"></body></html>";
        builder::AttachmentFields attachment{.name = name, .longName = name, .contentId = "1@x", .mimeTag = "image/png"};
        attachment.data = asBytes("picture");
        store.addFolder("Inbox").addMessage({.htmlBody = html}).attach(attachment);
        msg::MsgBuilder item;
        item.binary(msg::kRtfCompressed, rtf::Stored(msg::HtmlInRtf(html)));
        item.attach({.name = name, .contentId = "1@x", .data = "picture"});
        const Source sources[] = {
            {"mail.eml",
             mime::Multipart("related", {mime::Html(html), mime::Picture(name, "picture", "1@x")}).addressed().bytes()},
            {"mail.pst", asString(store.bytes())},
            {"mail.msg", item.bytes()}};
        for (const Source& source : sources) {
            write(source.name, source.bytes);
            for (const std::string& command :
                 {"document " + source.name + " --temp-files -o document", "export " + source.name + " -o out --format html"}) {
                const Outcome outcome = run(command, "TMPDIR='" + runtime().string() + "'");
                EXPECT_LE(outcome.exitCode, 1) << name << outcome.err;
                EXPECT_FALSE(fs::exists(outside)) << command << name;
                EXPECT_TRUE(fs::is_empty(runtime())) << command << name;
            }
            std::set<std::string> expected{"mail.eml", "mail.pst", "mail.msg", "document", "out"};
            for (const std::string& file : files(work())) {
                EXPECT_TRUE(expected.contains(file)) << file;
            }
            fs::remove_all(work("document"));
            fs::remove_all(work("out"));
        }
    }
}

// ---- files that several have to do with

TEST_F(Contained, SeveralReadOneFile) {
    for (const auto& [name, bytes] : htmlMails("<html><body>Hello</body></html>")) {
        write(name, bytes);
        const auto documentOf = [this](const std::string& directory) {
            const std::set<std::string> names = files(work(directory));
            EXPECT_EQ(names.size(), 1u);
            return readFile(work(directory) / *names.begin());
        };
        const std::string command = "document --temp-files " + name + " -o ";
        ASSERT_EQ(run(command + "alone > /dev/null").exitCode, 0);
        EXPECT_NE(documentOf("alone").find("Hello"), std::string::npos);
        const std::string one = "'" TERNVIEW_PROGRAM "' " + command;
        EXPECT_EQ(runCommand("sh -c \"for i in 1 2 3 4 5 6; do " + one + "\\$i > /dev/null & done; wait\"").exitCode, 0);
        for (const char* directory : {"1", "2", "3", "4", "5", "6"}) {
            EXPECT_EQ(documentOf(directory), documentOf("alone")) << name;
            fs::remove_all(work(directory));
        }
        fs::remove_all(work("alone"));
    }
}

TEST_F(Contained, FilesMayChangeMeanwhile) {
    for (const auto& [name, bytes] : htmlMails("<html><body>" + std::string(300'000, 'x') + "</body></html>")) {
        std::atomic<bool> done = false;
        std::thread changer([&, &fileName = name, &content = bytes] {
            while (!done) {
                write(fileName, content);
                fs::resize_file(work(fileName), content.size() / 2);
                fs::resize_file(work(fileName), content.size() * 2);
                write("other", "no mail at all, but long enough for one");
                fs::rename(work("other"), work(fileName));
            }
        });
        for (const char* command : {"info ", "document --quiet ", "list "}) {
            for (int i = 0; i < 10; ++i) {
                const Outcome outcome = run(command + name);
                EXPECT_LE(outcome.exitCode, 1) << outcome.err;
                EXPECT_EQ(outcome.err.find("ended early"), std::string::npos) << outcome.err;
                EXPECT_TRUE(fs::is_empty(runtime()));
            }
        }
        done = true;
        changer.join();
    }
}

// ---- however it ends

/// A run of the program that is under way.
class Running {
public:
    Running(const std::string& command, const fs::path& directory) : pid_(::fork()) {
        if (pid_ == 0) {
            for (const int signal : {SIGINT, SIGQUIT, SIGHUP}) {
                std::signal(signal, SIG_DFL);  // a shell lets what it runs in the background ignore some
            }
            ::setenv("XDG_RUNTIME_DIR", (directory / "../runtime").c_str(), 1);
            ::execl("/bin/sh", "sh", "-c", ("cd '" + directory.string() + "' && exec " + command).c_str(), nullptr);
            ::_exit(127);
        }
    }
    ~Running() { end(SIGKILL); }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    int end(int signal) {
        int status = 0;
        if (pid_ > 0) {
            ::kill(pid_, signal);
            ::waitpid(std::exchange(pid_, 0), &status, 0);
        }
        return status;
    }

    /// Its processes, at any depth.
    std::vector<pid_t> family() const {
        std::vector<pid_t> members{pid_};
        for (std::size_t i = 0; i < members.size(); ++i) {
            const std::string number = std::to_string(members[i]);
            std::ifstream children("/proc/" + number + "/task/" + number + "/children");
            for (pid_t child = 0; children >> child;) {
                members.push_back(child);
            }
        }
        return members;
    }

private:
    pid_t pid_;
};

/// Everything below a directory.
std::size_t entriesIn(const fs::path& directory) {
    std::error_code error;
    std::size_t count = 0;
    for (auto entry = fs::recursive_directory_iterator(directory, error); !error && entry != fs::recursive_directory_iterator();
         entry.increment(error)) {
        ++count;
    }
    return count;
}

struct Endless {
    std::string command;
    std::size_t processes;     // from so many on it is surely at work
    std::size_t entries;       // likewise, below the directory for temporary files
    std::string written = {};  // likewise, below the working directory
};

class Ends : public Contained {
protected:
    void SetUp() override {
        Contained::SetUp();
        std::string lines;
        for (int i = 0; i < 400'000; ++i) {
            lines += "a line of a long mail, number " + std::to_string(i) + "\r\n";
        }
        write("text.eml", mime::Plain(lines).addressed().bytes());
        write("picture.eml", mime::Multipart("related", {mime::Html("<html><body><img src=\"cid:1@x\">" +
                                                                    repeated("<table><tr><td>long</table>", 200'000)),
                                                         mime::Picture("a.png", "picture", "1@x")})
                                 .addressed()
                                 .bytes());
        std::string paragraphs = "{\\rtf1\\ansi{\\fonttbl{\\f0\\fswiss Arial;}}\\pard\\plain\\f0 ";
        for (int i = 0; i < 60'000; ++i) {
            paragraphs += "a line of a long mail, number " + std::to_string(i) + "\\par ";
        }
        write("rtf.msg", rtfMails(paragraphs + "}")[1].bytes);
        write("hang.pst", "!BDN and more");
        write("12.pst", "!BDN and more");
        fs::create_directory(work("pages"));
    }

    static std::string repeated(const std::string& text, int times) {
        std::string result;
        for (int i = 0; i < times; ++i) {
            result += text;
        }
        return result;
    }

    static bool hasBrowser() { return fs::exists("/usr/bin/chromium-headless-shell") || fs::exists("/usr/bin/chromium"); }

    std::vector<Endless> endless() const {
        const std::string program = "'" TERNVIEW_PROGRAM "' ";
        std::vector<Endless> all{
            {program + "render text.eml -r 600 -o pages/%d.png", 2, 1, "pages"},
            {program + "render picture.eml --temp-files --html-engine embedded -o pages/x.pdf", 2, 4},
            {program + "render rtf.msg -o pages/x.pdf", 3, 5},
            {program + "thumbnail picture.eml pages/x.png 128", 2, 1},
            {"env TERNMAIL_BATCH_LIBRARY='" BATCH_STAND_IN "' " + program + "list hang.pst", 2, 1},
            {"env TERNMAIL_BATCH_LIBRARY='" EXPORT_STAND_IN "' STAND_IN_ENDLESS=3 " + program +
                 "export 12.pst -o out --format png -r 600 -j 2",
             3, 3, "out"},
        };
        if (hasBrowser()) {
            all.push_back({program + "render picture.eml --html-engine chromium -o pages/x.pdf", 6, 2});
        }
        return all;
    }

    bool isAtWork(const Running& run, const Endless& what) const {
        return run.family().size() >= what.processes && entriesIn(runtime()) >= what.entries &&
               (what.written.empty() || !pending(work(what.written)).empty());
    }

    /// Files in the making.
    static std::vector<std::string> pending(const fs::path& directory) {
        std::vector<std::string> names;
        std::error_code error;
        for (auto entry = fs::recursive_directory_iterator(directory, error);
             !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
            if (entry->path().filename().string().starts_with(".ternview-new-")) {
                names.push_back(entry->path().filename());
            }
        }
        return names;
    }

    static bool hasEnded(pid_t process) {
        char state = 'X';
        std::string word;
        std::ifstream("/proc/" + std::to_string(process) + "/stat") >> word >> word >> state;
        return state == 'X' || state == 'Z';
    }

    static bool allGone(const std::vector<pid_t>& processes) {
        return waitUntil([&processes] { return std::all_of(processes.begin(), processes.end(), hasEnded); });
    }
};

TEST_F(Ends, BySignals) {
    for (const Endless& what : endless()) {
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
            Running run(what.command, work());
            ASSERT_TRUE(waitUntil([&] { return isAtWork(run, what); })) << what.command;
            const std::vector<pid_t> family = run.family();
            const int status = run.end(signal);
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << what.command;
            EXPECT_EQ(entriesIn(runtime()), 0u) << what.command << signal;
            EXPECT_EQ(pending(work()), std::vector<std::string>()) << what.command << signal;
            EXPECT_TRUE(allGone(family)) << what.command << signal;
            fs::remove_all(work("out"));
        }
    }
}

TEST_F(Ends, BySignalsWhileNobodyTakesTheOutput) {
    write("mail.eml", mime::Plain("Hello").addressed().bytes());
    ASSERT_EQ(::mkfifo(work("pipe").c_str(), 0600), 0);
    const std::string document = run("document mail.eml").out;
    const std::string program = "'" TERNVIEW_PROGRAM "' ";
    const std::string toPipe = program + "document mail.eml -o pipe";
    const auto waitsForReader = [](const Running& run) {  // the worker has done its part
        const std::vector<pid_t> family = run.family();
        return family.size() == 2 && hasEnded(family[1]);
    };
    const auto endsBySignal = [this](Running& run, const std::string& command) {
        ::kill(run.family().front(), SIGTERM);
        waitUntil([&run] { return hasEnded(run.family().front()); });
        const int status = run.end(SIGKILL);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << command;
        EXPECT_EQ(entriesIn(runtime()), 0u) << command;
    };
    {
        Running run(toPipe, work());
        ASSERT_TRUE(waitUntil([&] { return waitsForReader(run); }));
        endsBySignal(run, toPipe);
    }
    {
        Running run(toPipe, work());
        ASSERT_TRUE(waitUntil([&] { return waitsForReader(run); }));
        EXPECT_EQ(readFile(work("pipe")), document) << "a reader may come late";
        EXPECT_EQ(run.end(0), 0);
    }
    for (const std::string command : {"document text.eml -o pipe", "document text.eml > pipe"}) {
        const ternview::Descriptor reader(::open(work("pipe").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        Running run(program + command, work());
        ASSERT_TRUE(waitUntil([&reader] {  // the pipe is full
            pollfd room{reader.get(), POLLOUT, 0};
            return ::poll(&room, 1, 0) == 0;
        }));
        endsBySignal(run, command);
    }
}

TEST_F(Ends, NotByASignalThatIsIgnored) {
    const Endless what = endless().front();
    Running run("env --ignore-signal=HUP " + what.command, work());
    ASSERT_TRUE(waitUntil([&] { return isAtWork(run, what); }));
    ::kill(run.family().front(), SIGHUP);
    std::this_thread::sleep_for(500ms);
    EXPECT_FALSE(hasEnded(run.family().front()));
    run.end(SIGTERM);
}

TEST_F(Ends, OfAWorker) {
    // The leak sanitizer looks at the program from a process of its own, and waits for ever when that is killed as well.
    const char* const options = std::getenv("ASAN_OPTIONS");
    const std::string before = options != nullptr ? options : "";
    ::setenv("ASAN_OPTIONS", (before + ":detect_leaks=0").c_str(), 1);
    for (const Endless& what : endless()) {
        if (what.command.find("list") != std::string::npos) {
            continue;  // it goes on with another reader
        }
        Running run(what.command, work());
        ASSERT_TRUE(waitUntil([&] { return isAtWork(run, what); })) << what.command;
        EXPECT_TRUE(waitUntil([&] {  // whatever takes the place of those that were killed goes too
            const std::vector<pid_t> family = run.family();
            std::for_each(family.begin() + 1, family.end(), [](pid_t process) { ::kill(process, SIGKILL); });
            return hasEnded(family.front());
        })) << what.command;
        const int status = run.end(0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << what.command << status;
        EXPECT_EQ(entriesIn(runtime()), 0u) << what.command;
        EXPECT_EQ(pending(work()), std::vector<std::string>()) << what.command;
        fs::remove_all(work("out"));
    }
    options != nullptr ? ::setenv("ASAN_OPTIONS", before.c_str(), 1) : ::unsetenv("ASAN_OPTIONS");
}

TEST_F(Ends, ByDeathAndTheNextOneTidiesUp) {
    write("mail.eml", mime::Plain("Hello").addressed().bytes());
    const fs::path foreign[] = {runtime() / "ternview-export", runtime() / "ternview-private-export"};
    for (const Endless& what : endless()) {
        Running living(what.command, work());
        ASSERT_TRUE(waitUntil([&] { return isAtWork(living, what); })) << what.command;
        const std::size_t inUse = entriesIn(runtime());
        const std::vector<std::string> written = pending(work());
        EXPECT_EQ(run("render mail.eml -o pages/mail.png").exitCode, 0);
        EXPECT_EQ(run("render mail.eml -o out-of-the-way.png").exitCode, 0);
        EXPECT_GE(entriesIn(runtime()), std::min(inUse, what.entries)) << "what a living program needs stays: " << what.command;
        EXPECT_GE(pending(work()).size(), written.size()) << what.command;

        const std::vector<pid_t> family = living.family();
        living.end(SIGKILL);
        EXPECT_TRUE(allGone(family)) << what.command;
        EXPECT_GT(entriesIn(runtime()), 0u) << "nobody was there to remove it";
        for (const fs::path& directory : foreign) {
            fs::create_directories(directory / "kept");
        }
        std::ofstream(runtime() / "ternview-private-zzzzzz") << "a file";
        fs::create_directory_symlink(foreign[0], runtime() / "ternview-private-yyyyyy");

        EXPECT_EQ(run("render mail.eml -o pages/mail.png").exitCode, 0);
        const std::set<std::string> left{"ternview-export", "ternview-private-export", "ternview-private-zzzzzz",
                                         "ternview-private-yyyyyy"};
        EXPECT_EQ(files(runtime()), left) << what.command;
        EXPECT_TRUE(fs::exists(foreign[0] / "kept"));
        EXPECT_EQ(pending(work("pages")), std::vector<std::string>()) << what.command;
        if (fs::exists(work("out"))) {  // the export goes on, and its directories are in order again
            run("export mail.eml -o out --format png -r 600", "TERNMAIL_BATCH_LIBRARY='" EXPORT_STAND_IN "'");
            EXPECT_EQ(pending(work("out")), std::vector<std::string>());
        }
        for (const std::string& name : left) {
            fs::remove_all(runtime() / name);
        }
        fs::remove_all(work("out"));
        fs::remove_all(work("pages"));
        fs::create_directory(work("pages"));
    }
}

TEST_F(Contained, OnlyDirectoriesOfOursAreStale) {
    const bool isRoot = ::geteuid() == 0;
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    constexpr uid_t kNobody = 65534;
    struct {
        std::string name;
        mode_t mode;
        std::string content;
        bool isStale = false;
        uid_t owner = ::geteuid();
        gid_t group = ::getegid();
    } const cases[] = {
        {"ternview-export", 0700, "photos"},
        {"ternview-private-export", 0700, "photos"},
        {"ternview-private-public", 0755, "photos"},
        {"ternview-private-opened", 0755, ternview::filterDirectoryName()},
        {"ternview-private-hollow", 0755, ""},
        {"ternview-private-others", 0700, ternview::filterDirectoryName(), !isRoot, isRoot ? kNobody : user},
        {"ternview-private-begun0", 0700, "", true},
        {"ternview-private-killed", 0700, ternview::filterDirectoryName(), true},
        {"ternview-private-chrome", 0770, ternview::filterDirectoryName(), isRoot, user, isRoot ? kNobody : group},
    };
    std::set<std::string> left;
    for (const auto& [name, mode, content, isStale, owner, itsGroup] : cases) {
        const fs::path directory = runtime() / name;
        fs::create_directories(directory / content);
        if (!content.empty()) {
            std::ofstream(directory / content / "file") << "text";
        }
        ASSERT_TRUE(::chown(directory.c_str(), owner, itsGroup) == 0 && ::chmod(directory.c_str(), mode) == 0);
        if (!isStale) {
            left.insert(name);
        }
    }
    ternview::removeStaleDirectories(runtime());
    EXPECT_EQ(files(runtime()), left);
    for (const auto& [name, mode, content, isStale, owner, itsGroup] : cases) {
        EXPECT_TRUE(isStale || content.empty() || fs::exists(runtime() / name / content / "file")) << name;
        fs::remove_all(runtime() / name);
    }
}

/// As a process can leave a directory that a mail has taken over.
void fillBadly(const fs::path& directory) {
    fs::create_directories(directory / "locked/inner");
    std::ofstream(directory / "locked/inner/file") << "text";
    fs::create_directory_symlink("../../kept", directory / "locked/link");
    fs::create_directory_symlink("../kept", directory / "link");
    for (const char* locked : {"locked/inner", "locked"}) {
        ::chmod((directory / locked).c_str(), 0);
    }
    std::ofstream(directory / "1") << "a name that is taken";
    ternview::Descriptor deep(::open(directory.c_str(), O_RDONLY | O_DIRECTORY));
    for (int level = 0; level < 100; ++level) {
        ::mkdirat(deep.get(), "deeper", 0500);
        deep = ternview::Descriptor(::openat(deep.get(), "deeper", O_RDONLY | O_DIRECTORY));
        ::fchmod(deep.get(), 0700);
    }
}

TEST_F(Contained, NoPermissionsOrDepthsKeepPrivateDirectories) {
    constexpr uid_t kNobody = 65534;
    const pid_t child = ::fork();
    if (child == 0) {  // an ordinary user, whom permissions keep out
        const rlimit fewFiles{50, 50};
        const bool isOrdinary =
            ::chdir(runtime().c_str()) == 0 && ::setrlimit(RLIMIT_NOFILE, &fewFiles) == 0 &&
            (::geteuid() != 0 || (::chown(".", kNobody, kNobody) == 0 && ::setresgid(kNobody, kNobody, kNobody) == 0 &&
                                  ::setresuid(kNobody, kNobody, kNobody) == 0));
        fs::create_directory("kept");
        std::ofstream("kept/file") << "text";
        ::chmod("kept", 0500);
        {
            const ternview::PrivateDirectory directory(".");
            fillBadly(directory.path());
            ::chmod(directory.path().c_str(), 0);
        }
        const bool isGone = files(".") == std::set<std::string>{"kept"};
        fs::create_directories("ternview-private-killed/" + ternview::filterDirectoryName());
        ::chmod("ternview-private-killed", 0700);
        fillBadly("ternview-private-killed");
        fillBadly("ternview-private-killed/" + ternview::filterDirectoryName());
        ternview::removeStaleDirectories(".");
        const bool isTidy = files(".") == std::set<std::string>{"kept"};
        struct stat kept {};
        const bool isKept = ::stat("kept", &kept) == 0 && (kept.st_mode & 0777) == 0500 && fs::exists("kept/file");
        ::_exit((isOrdinary ? 0 : 1) + (isGone ? 0 : 2) + (isTidy ? 0 : 4) + (isKept ? 0 : 8));
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "not ordinary (1), not removed (2), not as a stale one (4), a link followed (8)";
    ::chmod((runtime() / "kept").c_str(), 0700);
    fs::remove_all(runtime() / "kept");
}

TEST_F(Ends, OnAFullDisk) {
    for (const char* command : {"render picture.eml --temp-files --html-engine embedded -o pages/x.pdf",
                                "render text.eml -p 1 -o pages/x.png", "document text.eml --temp-files -o document",
                                "export text.eml -o out --format txt", "thumbnail picture.eml x.png 256"}) {
        const Outcome outcome = run(command, R"(sh -c 'ulimit -f 1; exec "$0" "$@"')");
        EXPECT_EQ(outcome.exitCode, 1) << command << outcome.err;
        EXPECT_TRUE(outcome.err.starts_with("ternview: ")) << command << outcome.err;
        EXPECT_EQ(entriesIn(runtime()), 0u) << command;
        EXPECT_EQ(pending(work()), std::vector<std::string>()) << command;
    }
    // No room for temporary files at all, in a file system of its own where that can be had.
    if (std::system("unshare -rm true 2> /dev/null") != 0) {
        return;
    }
    write("item.msg", htmlMails("<html><body>" + std::string(100'000, 'x') + "</body></html>")[2].bytes);
    const std::string mounted =
        "sh -c 'mount -t tmpfs -o size=8k,nr_inodes=6 none ../runtime && \"$0\" \"$@\"; code=$?; ls -A ../runtime; exit $code'";
    for (const char* command :
         {"render picture.eml --temp-files --html-engine embedded -o pages/x.pdf",
          "render item.msg --temp-files --html-engine embedded -o pages/x.pdf", "document picture.eml --temp-files -o document",
          "export picture.eml -o out-html --format html"}) {
        const Outcome outcome = run(command, "unshare -rm " + mounted);
        EXPECT_EQ(outcome.exitCode, 1) << command << outcome.err;
        EXPECT_TRUE(outcome.err.starts_with("ternview: ")) << command << outcome.err;
        EXPECT_EQ(outcome.out.find("ternview-"), std::string::npos) << command << outcome.out;
    }
}

}  // namespace
