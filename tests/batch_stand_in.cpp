// Stands in for libternmail_batch.so where a test needs a reader that goes wrong. What it does is the beginning of the file's
// name, up to its full stop.

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <ternkit/batch.h>
#include <ternkit/formats.h>

#include "walled_off.h"

namespace {

using ternkit::BatchMessage;
using ternkit::BatchRequest;
using ternkit::Status;

BatchMessage soundMessage(std::uint32_t index, std::uint32_t count) {
    BatchMessage message{};
    message.structSize = sizeof(message);
    message.messageIndex = index;
    message.run = 1;
    message.messageCount = count;
    message.sourceFormat = ternkit::kFormatPst;
    message.status = ternkit::kOk;
    message.resultStatus = ternkit::kOk;
    message.subject = "sound";
    message.senderName = message.senderAddress = message.displayTo = message.displayCc = message.displayBcc = message.date = "";
    message.bodies = ternkit::kBatchBodyText;
    message.sentTime = ternkit::kBatchNoTime;
    return message;
}

/// @return false when the visitor wants no more
bool visitSome(const BatchRequest& request, std::uint32_t messages, std::uint32_t count) {
    for (std::uint32_t index = 0; index < messages; ++index) {
        request.wish(request.userData, index, count);
        const BatchMessage message = soundMessage(index, count);
        if (request.visit(request.userData, &message) != ternkit::kOk) {
            return false;
        }
    }
    return true;
}

Status sound(const BatchRequest& request) {
    visitSome(request, 3, 3);
    return ternkit::kOk;
}

Status endless(const BatchRequest& request) {
    constexpr std::uint32_t kMany = 2'000'000'000;
    visitSome(request, kMany, kMany);
    return ternkit::kOk;
}

Status abortLate(const BatchRequest& request) {
    visitSome(request, 2, 5);
    std::abort();
}

Status leave(const BatchRequest& request) {
    visitSome(request, 2, 5);
    ::_exit(0);
}

Status hang(const BatchRequest& request) {
    visitSome(request, 1, 5);
    while (true) {
        ::pause();
    }
}

Status fillMemory(const BatchRequest& request) {
    visitSome(request, 1, 5);
    constexpr std::size_t kBlock = std::size_t{64} << 20;
    std::vector<std::unique_ptr<char[]>> blocks;  // of address space; nothing is written to them
    while (true) {
        blocks.push_back(std::make_unique_for_overwrite<char[]>(kBlock));
    }
}

/// To whoever listens.
void sendBytes(std::string_view bytes) {
    for (int descriptor = 3; descriptor < 64; ++descriptor) {
        struct stat status {};
        if (::fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode)) {
            ::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        }
    }
}

Status garbage(const BatchRequest& request) {
    visitSome(request, 1, 5);
    sendBytes(std::string(100, '\x7F'));
    ::pause();
    return ternkit::kOk;
}

/// Is always busy with a message that never comes.
Status drip(const BatchRequest& request) {
    using namespace std::literals;
    visitSome(request, 1, 5);
    sendBytes("\x40\0\0\0\0\0\x10\0"sv);
    while (true) {
        sendBytes("x");
        ::usleep(50'000);
    }
}

/// Passes over one message after the other.
Status pass(const BatchRequest& request) {
    using namespace std::literals;
    visitSome(request, 1, 5);
    while (true) {
        sendBytes("\x41\0\0\0\0\0\0\0"sv);
        ::usleep(1000);
    }
}

/// Tells what it could get at.
Status lookAround(const BatchRequest& request) {
    const std::string ways = waysOut();
    const std::string files = waysToFiles(".");
    BatchMessage message = soundMessage(0, 1);
    message.subject = ways.c_str();
    message.senderName = files.c_str();
    request.visit(request.userData, &message);
    return ternkit::kOk;
}

/// Goes back to a message that was there already.
Status backwards(const BatchRequest& request) {
    visitSome(request, 2, 5);
    visitSome(request, 2, 5);
    return ternkit::kOk;
}

/// Fields as no filter gives them, with numbers as they should not be.
Status hostile(const BatchRequest& request) {
    std::string subject;
    while (subject.size() < std::size_t{1} << 20) {
        subject += "\u00e9";
    }
    BatchMessage message = soundMessage(0, 0);
    message.subject = subject.c_str();
    message.senderName = "a\x1B[31mb\u202Ec\u2028d\xFF\x9B";
    message.displayTo = nullptr;
    message.date = "\n\r\t";
    message.sentTime = INT64_MAX;
    message.size = UINT64_MAX;
    message.bodies = UINT32_MAX;
    request.visit(request.userData, &message);
    message = soundMessage(UINT32_MAX, UINT32_MAX);
    message.run = UINT32_MAX;
    message.status = -2147483647;
    request.visit(request.userData, &message);
    return ternkit::kOk;
}

Status run(const BatchRequest& request) {
    BatchMessage message = soundMessage(0, 12);
    request.visit(request.userData, &message);
    message.messageIndex = 1;
    message.run = 11;
    message.status = ternkit::kUnusable;
    message.subject = "";
    message.bodies = 0;
    request.visit(request.userData, &message);
    return ternkit::kOk;
}

Status unusable(const BatchRequest&) {
    return ternkit::kUnusable;
}

std::string behaviourOf(const BatchRequest& request) {
    std::string name;
    for (const char16_t* unit = request.fileName; *unit != 0; ++unit) {
        name = *unit == u'/' ? std::string() : name + static_cast<char>(*unit);
    }
    return name.substr(0, name.find('.'));
}

}  // namespace

extern "C" Status TernVisitMessages(const BatchRequest* request) {
    static const std::map<std::string, std::function<Status(const BatchRequest&)>> kBehaviours{
        {"sound", sound},       {"endless", endless}, {"abort", abortLate},     {"leave", leave},     {"hang", hang},
        {"memory", fillMemory}, {"garbage", garbage}, {"backwards", backwards}, {"hostile", hostile}, {"run", run},
        {"unusable", unusable}, {"look", lookAround}, {"drip", drip},           {"pass", pass}};
    return kBehaviours.at(behaviourOf(*request))(*request);
}
