#include "browser/devtools.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

namespace ternview {
namespace {

using Kind = BrowserFailure::Kind;

// The browser itself takes no longer message; it hangs then.
constexpr std::size_t kLongestCommand = std::size_t{95} << 20;
constexpr std::size_t kLongestAnswer = std::size_t{64} << 20;
constexpr std::chrono::milliseconds kWatchInterval{20};

void makeNonBlocking(int descriptor) {
    ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) | O_NONBLOCK);
}

bool canWait() {
    return errno == EAGAIN || errno == EINTR;
}

}  // namespace

DevTools::DevTools(Descriptor toBrowser, Descriptor fromBrowser, std::function<void()> watch)
    : toBrowser_(std::move(toBrowser)), fromBrowser_(std::move(fromBrowser)), watch_(std::move(watch)) {
    makeNonBlocking(toBrowser_.get());
    makeNonBlocking(fromBrowser_.get());
}

DevTools::Json DevTools::call(const std::string& method, const Json& parameters, const std::string& session) {
    const int id = ++lastId_;
    Json command{{"id", id}, {"method", method}, {"params", parameters}};
    if (!session.empty()) {
        command["sessionId"] = session;
    }
    send(command);
    command.clear();
    while (true) {
        const Json message = receive();
        if (message.value("id", 0) != id) {
            handleEvent(message);
            continue;
        }
        if (const auto error = message.find("error"); error != message.end()) {
            throw BrowserFailure(Kind::kRefused, method + ": " + error->value("message", "it gives no reason"));
        }
        return message.value("result", Json::object());
    }
}

bool DevTools::drain() {
    try {
        while (readSome()) {
        }
        incoming_.clear();
        searched_ = 0;
        return true;
    } catch (const BrowserFailure&) {
        return false;
    }
}

void DevTools::handleEvent(const Json& event) {
    const std::string method = event.value("method", "");
    if (method == "Inspector.targetCrashed") {
        throw BrowserFailure(Kind::kGone, "its page crashed");
    }
    if (method != "Fetch.requestPaused") {
        return;
    }
    // Of all reasons this alone leaves the page as it is when the page wants to go elsewhere; others put an error page in its
    // place.
    send({{"id", ++lastId_},
          {"method", "Fetch.failRequest"},
          {"params", {{"requestId", event.at("params").at("requestId")}, {"errorReason", "Aborted"}}},
          {"sessionId", event.value("sessionId", "")}});
}

void DevTools::send(const Json& message) {
    // What stands in a document may be no UTF-8, which JSON cannot carry.
    std::string text = message.dump(-1, ' ', false, Json::error_handler_t::replace);
    text += '\0';
    if (text.size() > kLongestCommand) {
        throw BrowserFailure(Kind::kRefused, "it is too large");
    }
    outgoing_.erase(0, std::exchange(sent_, 0));
    outgoing_.empty() ? void(outgoing_ = std::move(text)) : void(outgoing_ += text);
}

DevTools::Json DevTools::receive() {
    while (true) {
        const std::size_t end = incoming_.find('\0', searched_);
        if (end == std::string::npos) {
            searched_ = incoming_.size();
            exchange();
            continue;
        }
        Json message = Json::parse(std::string_view(incoming_).substr(0, end), nullptr, false);
        incoming_.erase(0, end + 1);
        searched_ = 0;
        if (!message.is_object()) {
            throw BrowserFailure(Kind::kGone, "it talks nonsense");
        }
        return message;
    }
}

void DevTools::exchange() {
    const auto now = Clock::now();
    if (now >= deadline_) {
        throw BrowserFailure(Kind::kTimeOver, "it takes too long");
    }
    watch_();
    std::array<pollfd, 2> watched{pollfd{fromBrowser_.get(), POLLIN, 0},
                                  pollfd{sent_ < outgoing_.size() ? toBrowser_.get() : -1, POLLOUT, 0}};
    const auto wait = std::min<Clock::duration>(deadline_ - now, kWatchInterval);
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
    if (::poll(watched.data(), watched.size(), static_cast<int>(milliseconds)) <= 0) {
        return;
    }
    if (watched[1].revents != 0) {
        writeSome();
    }
    if (watched[0].revents != 0) {
        readSome();
    }
}

bool DevTools::readSome() {
    std::array<char, 65536> chunk;
    const ssize_t got = ::read(fromBrowser_.get(), chunk.data(), chunk.size());
    if (got < 0 && canWait()) {
        return false;
    }
    if (got <= 0 || incoming_.size() + static_cast<std::size_t>(got) > kLongestAnswer) {
        throw BrowserFailure(Kind::kGone, "it ended early");
    }
    incoming_.append(chunk.data(), static_cast<std::size_t>(got));
    return true;
}

void DevTools::writeSome() {
    const ssize_t written = ::write(toBrowser_.get(), outgoing_.data() + sent_, outgoing_.size() - sent_);
    if (written < 0 && !canWait()) {
        throw BrowserFailure(Kind::kGone, "it ended early");
    }
    sent_ += written > 0 ? static_cast<std::size_t>(written) : 0;
}

}  // namespace ternview
