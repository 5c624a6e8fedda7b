// ternview-browser: a browser behind a gate. It is started by ternview, prints one page of HTML after the other, and ends with
// it. It is a program of its own so that what goes on between it and the browser is out of reach of the rest of ternview.

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "browser/browser_requests.h"
#include "browser/browser_sandbox.h"
#include "browser/chromium.h"
#include "browser/print_page.h"
#include "frames.h"
#include "service/service_messages.h"

namespace {

using namespace ternview;
namespace fs = std::filesystem;

constexpr double kLongestTimeLimit = 86400;
constexpr double kLargestPaper = 20000;
constexpr std::chrono::seconds kStartLimit{10};
// The browser grows a little with every page.
constexpr int kPagesPerProcess = 250;

struct Request {
    std::chrono::seconds timeLimit;
    double countedBytes;
    PrintSetup setup;
};

/// @param longest what the program allows
std::optional<Request> parseRequest(std::string_view label, std::chrono::seconds longest) {
    std::array<double, 5> numbers{};
    for (double& number : numbers) {
        const auto [stop, error] = std::from_chars(label.data(), label.data() + label.size(), number);
        if (error != std::errc() || !(number >= 0)) {
            return std::nullopt;
        }
        label.remove_prefix(static_cast<std::size_t>(stop - label.data()));
        label.remove_prefix(label.starts_with(' ') ? 1 : 0);
    }
    const auto [seconds, countedBytes, width, height, margin] = numbers;
    const bool isPaper = width <= kLargestPaper && height <= kLargestPaper && 2 * margin < width - 1 && 2 * margin < height - 1;
    if (!label.empty() || !isPaper || seconds < 1 || seconds > kLongestTimeLimit) {
        return std::nullopt;
    }
    return Request{std::min(longest, std::chrono::seconds(static_cast<int>(seconds))), countedBytes, {width, height, margin}};
}

/// A page that takes longer than its size explains was made to; but whoever allows more time than usual gets it.
std::chrono::seconds processorTime(std::size_t bytes, std::chrono::seconds timeLimit) {
    constexpr std::chrono::seconds kUsualTimeLimit{60};
    constexpr std::chrono::seconds kSmallPage{10};
    constexpr std::size_t kBytesPerSecond = 1'000'000;  // of what is more than small
    constexpr std::size_t kSmallBytes = 8'000'000;
    const auto more = static_cast<int>((std::max(bytes, kSmallBytes) - kSmallBytes) / kBytesPerSecond);
    return timeLimit > kUsualTimeLimit ? timeLimit : std::min(timeLimit, kSmallPage + std::chrono::seconds(more));
}

/// What the process does from its first page to its last one.
class Service {
public:
    Service(int gate, std::chrono::seconds timeLimit, Chromium::Options options, std::string obstacle)
        : gate_(gate), timeLimit_(timeLimit), options_(std::move(options)), obstacle_(std::move(obstacle)) {}

    /// Ends when the program does, when the browser does, and after a page that failed: what is left of that is best ended too.
    void run() {
        for (int i = 0; i < kPagesPerProcess && waitForRequest(); ++i) {
            const std::optional<Descriptor> socket = receiveThroughGate(gate_);
            if (!socket || !serve(socket->get())) {
                return;
            }
        }
    }

private:
    /// @return false when the browser ended meanwhile
    bool waitForRequest() {
        while (true) {
            std::array<pollfd, 2> watched{pollfd{gate_, POLLIN, 0},
                                          pollfd{chromium_ ? chromium_->devTools().descriptor() : -1, POLLIN, 0}};
            ::poll(watched.data(), watched.size(), -1);
            if (watched[1].revents != 0 && !chromium_->devTools().drain()) {
                return false;
            }
            if (watched[0].revents != 0) {
                return true;
            }
        }
    }

    /// @return whether the next one can be served
    bool serve(int socket) {
        const timeval patience{5, 0};  // an asker that was stopped while it wrote must not hold the others up
        for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
            ::setsockopt(socket, SOL_SOCKET, option, &patience, sizeof(patience));
        }
        const std::optional<ServiceMessage> message = read(socket);
        const std::optional<Request> request =
            message && message->kind == FrameKind::kDocument ? parseRequest(message->label, timeLimit_) : std::nullopt;
        if (!request) {
            return true;
        }
        FrameWriter out(socket);
        try {
            if (!obstacle_.empty()) {
                out.result(std::string(kAnswerUnconfined) + obstacle_);
                return true;
            }
            const std::string pdf = print(message->bytes, *request);
            const EndInTime end(timeLimit_);
            out.begin(FrameKind::kPdf);
            out.data(pdf);
            out.end();
            return true;
        } catch (const BrowserFailure& failure) {
            refuse(failure, out);
        } catch (const DevTools::Json::exception&) {
            refuse({BrowserFailure::Kind::kGone, "it talks nonsense"}, out);
        } catch (const std::system_error&) {
            return true;  // the asker has gone; the next one counts
        }
        return false;
    }

    std::optional<ServiceMessage> read(int socket) const {
        const EndInTime end(timeLimit_);
        return readServiceMessage(socket);
    }

    std::string print(std::string_view html, const Request& request) {
        if (chromium_ == std::nullopt) {
            chromium_.emplace(options_);
            chromium_->devTools().setDeadline(DevTools::Clock::now() + kStartLimit);
            chromium_->devTools().call("Browser.getVersion");
        }
        chromium_->devTools().setDeadline(DevTools::Clock::now() + request.timeLimit);
        const double counted = std::min(static_cast<double>(html.size()), request.countedBytes);
        chromium_->limitProcessorTime(processorTime(static_cast<std::size_t>(counted), request.timeLimit));
        return printPage(chromium_->devTools(), html, request.setup);
    }

    static void refuse(const BrowserFailure& failure, FrameWriter& out) {
        const bool isTimeOver = failure.kind() == BrowserFailure::Kind::kTimeOver;
        try {
            out.result(std::string(isTimeOver ? kAnswerTimeOver : kAnswerRefused) + failure.what());
        } catch (const std::system_error&) {
            // Nobody is interested any more.
        }
    }

    int gate_;
    std::chrono::seconds timeLimit_;  // of a page, whatever its request says
    Chromium::Options options_;
    std::string obstacle_;  // why the browser is not started
    std::optional<Chromium> chromium_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fputs("ternview-browser: this program is started by ternview and is of no use alone\n", stderr);
        return 2;
    }
    const int gate = std::atoi(argv[1]);
    const std::chrono::seconds timeLimit(std::atoi(argv[2]));
    const std::string directory = argv[3];
    const bool isConfined = argv[5] == kConfined;
    Chromium::Options options{
        .program = argv[4], .directory = isConfined ? kSandboxDirectory : directory, .ownSandbox = isConfined};
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    std::string obstacle = isConfined ? enterBrowserSandbox(options.program.parent_path()) : confineWithoutNamespaces(directory);
    Service(gate, timeLimit, std::move(options), std::move(obstacle)).run();
    ::_exit(EXIT_SUCCESS);
}
