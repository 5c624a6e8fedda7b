// ternview-office: the office suite behind a gate. It is started by ternview, serves one document after the other, and ends with
// it. It is a program of its own so that the suite's hundred libraries meet none of ternview's, and so that hidden modes are no
// part of ternview's command line.

#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <LibreOfficeKit/LibreOfficeKit.h>

#include "frames.h"
#include "office_requests.h"
#include "office_sandbox.h"
#include "processor_time.h"
#include "sanitized.h"
#include "service/service_messages.h"

namespace {

using namespace ternview;
namespace fs = std::filesystem;

constexpr unsigned kLongestTimeLimit = 86400;
// The suite grows a little with every document, and gets slower: by half within 500. A new process costs a second.
constexpr int kDocumentsPerProcess = 250;

// Macros never run, links are neither followed nor brought up to date, nothing is saved behind one's back.
constexpr char kProfile[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<oor:items xmlns:oor="http://openoffice.org/2001/registry" xmlns:xs="http://www.w3.org/2001/XMLSchema">
<item oor:path="/org.openoffice.Office.Common/Security/Scripting"><prop oor:name="MacroSecurityLevel" oor:op="fuse"><value>3</value></prop></item>
<item oor:path="/org.openoffice.Office.Common/Security/Scripting"><prop oor:name="DisableMacrosExecution" oor:op="fuse"><value>true</value></prop></item>
<item oor:path="/org.openoffice.Office.Common/Security/Scripting"><prop oor:name="BlockUntrustedRefererLinks" oor:op="fuse"><value>true</value></prop></item>
<item oor:path="/org.openoffice.Office.Writer/Content/Update"><prop oor:name="Link" oor:op="fuse"><value>0</value></prop></item>
<item oor:path="/org.openoffice.Office.Recovery/AutoSave"><prop oor:name="Enabled" oor:op="fuse"><value>false</value></prop></item>
<item oor:path="/org.openoffice.Office.Recovery/RecoveryInfo"><prop oor:name="Enabled" oor:op="fuse"><value>false</value></prop></item>
<item oor:path="/org.openoffice.Office.Common/Misc"><prop oor:name="UseOpenCL" oor:op="fuse"><value>false</value></prop></item>
)";

// Kinds of pictures that RTF does not know, by whatever way they come (as a part of another one, too): some name further files,
// as SVG does and SVM, which may hold it, and some want programs run.
constexpr const char* kUnreadPictures[] = {
    "dxf_Import",      "emz_Import",       "eps_Import",        "met_Import", "mov_Import",  "pbm_Import",
    "pcd_Import_Base", "pcd_Import_Base4", "pcd_Import_Base16", "pcx_Import", "pdf_Import",  "pgm_Import",
    "ppm_Import",      "psd_Import",       "ras_Import",        "svg_Import", "svgz_Import", "svm_Import",
    "tga_Import",      "tif_Import",       "webp_Import",       "wmz_Import", "xbm_Import",  "xpm_Import",
};

// Pictures go into the PDF as they are: they are drawn at the page's resolution afterwards.
constexpr char kPdfOptions[] =
    R"({"UseLosslessCompression":{"type":"boolean","value":"true"},"ReduceImageResolution":{"type":"boolean","value":"false"}})";

// The suite's PDF export writes glyphs in colour as nothing at all. Without such fonts it takes the glyph of another one.
constexpr char kFonts[] = R"(<?xml version="1.0"?>
<!DOCTYPE fontconfig SYSTEM "urn:fontconfig:fonts.dtd">
<fontconfig>
<include ignore_missing="yes">/etc/fonts/fonts.conf</include>
<selectfont><rejectfont><pattern><patelt name="color"><bool>true</bool></patelt></pattern></rejectfont></selectfont>
</fontconfig>
)";

std::string profile() {
    std::string text = kProfile;
    for (const char* kind : kUnreadPictures) {
        text += "<item oor:path=\"/org.openoffice.TypeDetection.GraphicFilter/Filters\"><node oor:name=\"";
        text += kind;
        text += "\" oor:op=\"remove\"/></item>\n";
    }
    return text + "</oor:items>\n";
}

LibreOfficeKit* startSuite(const fs::path& suite, const std::string& directory) {
    const fs::path home = fs::path(directory) / "profile";
    fs::create_directories(home / "user");
    std::ofstream(home / "user" / "registrymodifications.xcu") << profile();
    std::ofstream(fs::path(directory) / kOfficeFonts) << kFonts;
    void* library = nullptr;
    for (const char* name : {"libsofficeapp.so", "libmergedlo.so"}) {
        library = library != nullptr ? library : ::dlopen((suite / name).c_str(), RTLD_LAZY);
    }
    using Hook = LibreOfficeKit* (*)(const char*, const char*);
    const auto hook = library != nullptr ? reinterpret_cast<Hook>(::dlsym(library, "libreofficekit_hook_2")) : nullptr;
    return hook != nullptr ? hook(suite.c_str(), ("file://" + home.string()).c_str()) : nullptr;
}

struct Target {
    std::string_view label;  // in requests
    const char* file;        // the suite takes some of a document's nature from the end of its name, so these names are fixed
    const char* filter;
    const char* options;
    FrameKind answer;
};

constexpr Target kTargets[] = {
    {"pdf ", "message.pdf", "pdf", kPdfOptions, FrameKind::kPdf},
    {"text ", "message.txt", "txt", "UTF8", FrameKind::kDocument},
    {"html ", "message.html", "html", "EmbedImages", FrameKind::kDocument},
};

struct Request {
    const Target* target;
    std::chrono::seconds timeLimit;
    std::uint64_t countedBytes;
};

/// @param longest what the program allows
std::optional<Request> parseRequest(std::string_view label, std::chrono::seconds longest) {
    const auto target = std::ranges::find_if(kTargets, [label](const Target& t) { return label.starts_with(t.label); });
    if (target == std::end(kTargets)) {
        return std::nullopt;
    }
    unsigned seconds = 0;
    std::uint64_t countedBytes = 0;
    const std::string_view numbers = label.substr(label.find(' ') + 1);
    const char* end = numbers.data() + numbers.size();
    const auto first = std::from_chars(numbers.data(), end, seconds);
    if (first.ec != std::errc() || first.ptr == end || *first.ptr != ' ' || seconds == 0 || seconds > kLongestTimeLimit) {
        return std::nullopt;
    }
    const auto second = std::from_chars(first.ptr + 1, end, countedBytes);
    if (second.ec != std::errc() || second.ptr != end) {
        return std::nullopt;
    }
    return Request{target, std::min(longest, std::chrono::seconds(seconds)), countedBytes};
}

std::string takeError(LibreOfficeKit& suite) {
    char* error = suite.pClass->getError(&suite);
    std::string text = error != nullptr ? error : "";
    if (error != nullptr) {
        suite.pClass->freeError(error);
    }
    return text.empty() ? "it gives no reason" : text;
}

struct CloseDocument {
    void operator()(LibreOfficeKitDocument* document) const { document->pClass->destroy(document); }
};

/// @return why nothing came of it; empty when the target has been written
std::string convert(LibreOfficeKit& suite, const fs::path& source, const fs::path& file, const Target& target) {
    const std::unique_ptr<LibreOfficeKitDocument, CloseDocument> document(
        suite.pClass->documentLoad(&suite, ("file://" + source.string()).c_str()));
    if (document == nullptr) {
        return takeError(suite);
    }
    const int saved =
        document->pClass->saveAs(document.get(), ("file://" + file.string()).c_str(), target.filter, target.options);
    return saved != 0 ? "" : takeError(suite);
}

/// The hard limit stays, so that the soft one can be moved on.
void setSoftLimit(__rlimit_resource resource, rlim_t value) {
    rlimit limit{};
    ::getrlimit(resource, &limit);
    limit.rlim_cur = std::min(value, limit.rlim_max);
    ::setrlimit(resource, &limit);
}

/// What a document of this size may need: the suite itself takes the larger part.
/// @param most bytes that count of documents of the same mail, which tell how large the mail is
void limitMemory([[maybe_unused]] std::size_t bytes, [[maybe_unused]] std::uint64_t most) {
#ifndef TERNVIEW_SANITIZED
    constexpr std::uint64_t kMostOfSmallMail = 8'000'000;
    constexpr rlim_t kMemoryOfSmallDocument = rlim_t{400} << 20;
    // With all libraries and fonts mapped, which the limit does not see, what a small mail gets stays below 600 MB.
    const rlim_t memoryOfByte = most < kMostOfSmallMail ? 8 : 16;
    setSoftLimit(RLIMIT_DATA, kMemoryOfSmallDocument + memoryOfByte * bytes);
#endif
}

/// The end of the process for a document that takes longer than its size explains, unless more time than usual is allowed.
void limitProcessorTime(std::size_t bytes, std::chrono::seconds timeLimit) {
    constexpr rlim_t kUsualTimeLimit = 60;
    constexpr std::size_t kSmallSeconds = 8;            // the start of the suite takes about one more
    constexpr std::size_t kBytesPerSecond = 1'000'000;  // of what is more than small
    constexpr std::size_t kSmallBytes = 9'000'000;      // compressed, a small mail can hold as much
    const std::size_t needed = kSmallSeconds + (std::max(bytes, kSmallBytes) - kSmallBytes) / kBytesPerSecond;
    const auto allowed = static_cast<rlim_t>(timeLimit.count());
    const std::chrono::seconds seconds(allowed > kUsualTimeLimit ? allowed : std::min<rlim_t>(needed, allowed));
    const auto end = usedProcessorTime() + seconds;
    std::signal(SIGXCPU, SIG_DFL);
    setSoftLimit(RLIMIT_CPU, static_cast<rlim_t>(std::chrono::ceil<std::chrono::seconds>(end).count()));
    endAtProcessorTime(end);
}

/// @return whether the process is good for another document. One that refuses a document late ends: the same document may come
/// again without its pictures, and both together would take too long for one process.
bool answer(LibreOfficeKit& suite, const fs::path& directory, const ServiceMessage& message, const Request& request,
            FrameWriter& out) {
    constexpr std::chrono::seconds kLate{1};
    const fs::path source = directory / "message.rtf";
    const fs::path target = directory / request.target->file;
    std::ofstream(source, std::ios::binary) << message.bytes;
    const EndInTime end(request.timeLimit);
    const std::size_t counted = std::min<std::uint64_t>(message.bytes.size(), request.countedBytes);
    limitProcessorTime(counted, request.timeLimit);
    limitMemory(counted, request.countedBytes);
    const auto begun = usedProcessorTime();
    const std::string reason = convert(suite, source, target, *request.target);
    const bool isLate = usedProcessorTime() - begun > kLate;
    setSoftLimit(RLIMIT_CPU, RLIM_INFINITY);
    endAtProcessorTime(std::chrono::nanoseconds(0));
    std::ifstream stream(target, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    fs::remove(source);
    fs::remove(target);
    if (!reason.empty() || bytes.empty() || bytes.size() > kLargestServiceMessage) {
        out.result(reason.empty() ? "nothing to show came of it, or too much" : reason);
        return !isLate;
    }
    out.begin(request.target->answer);
    out.data(bytes);
    out.end();
    return true;
}

std::optional<ServiceMessage> readInTime(int socket, std::chrono::seconds limit) {
    const EndInTime end(limit);
    return readServiceMessage(socket);
}

/// @return whether the process goes on
bool serve(LibreOfficeKit*& suite, const fs::path& directory, const fs::path& suiteDirectory, int socket,
           std::chrono::seconds timeLimit) {
    const timeval patience{5, 0};  // an asker that was stopped while it wrote must not hold the others up
    for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        ::setsockopt(socket, SOL_SOCKET, option, &patience, sizeof(patience));
    }
    const std::optional<ServiceMessage> message = readInTime(socket, timeLimit);
    const std::optional<Request> request =
        message && message->kind == FrameKind::kDocument ? parseRequest(message->label, timeLimit) : std::nullopt;
    if (!request) {
        return true;
    }
    FrameWriter out(socket);
    // Started with a document at hand only: one that cannot start is that document's failure, not an endless row of attempts.
    if (suite == nullptr) {
        suite = startSuite(suiteDirectory, directory);
    }
    if (suite == nullptr) {
        out.result("it does not start");
        return true;
    }
    return answer(*suite, directory, *message, *request, out);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fputs("ternview-office: this program is started by ternview and is of no use alone\n", stderr);
        return 2;
    }
    const int gate = std::atoi(argv[1]);
    const std::chrono::seconds timeLimit(std::atoi(argv[2]));
    const fs::path directory = argv[3];
    const fs::path suiteDirectory = argv[4];
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    if (!enterOfficeSandbox(directory, suiteDirectory)) {
        ::_exit(EXIT_FAILURE);
    }
    LibreOfficeKit* suite = nullptr;
    bool goesOn = true;
    for (int i = 0; i < kDocumentsPerProcess && goesOn; ++i) {
        const std::optional<Descriptor> socket = receiveThroughGate(gate);
        if (!socket) {
            break;
        }
        try {
            goesOn = serve(suite, directory, suiteDirectory, socket->get(), timeLimit);
        } catch (const std::exception&) {
            // The asker has gone; the next one counts.
        }
    }
    ::_exit(EXIT_SUCCESS);  // the suite's own way out takes long and can go wrong
}
