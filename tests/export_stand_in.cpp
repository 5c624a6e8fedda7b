// Stands in for libternmail_batch.so where a test of exports needs messages that come when it wants them. A file holds as many
// messages as its name says ("12.pst"), each a short text. Environment variables, each the 1-based number of a message:
//
//     STAND_IN_WAIT      it never comes
//     STAND_IN_ENDLESS   it is so long that laying it out at a high resolution takes minutes
//     STAND_IN_HOSTILE   its fields are none that a file system or a page likes

#include <unistd.h>

#include <cstdlib>
#include <string>

#include <ternkit/batch.h>
#include <ternkit/formats.h>

namespace {

using namespace ternkit;

constexpr std::int64_t kFifthOfMarch = 1'709'629'620;  // 2024-03-05 09:07 UTC

std::uint32_t numberIn(const char* variable) {
    const char* value = std::getenv(variable);
    return value == nullptr ? 0 : static_cast<std::uint32_t>(std::strtoul(value, nullptr, 10));
}

std::uint32_t countOf(const char16_t* path) {
    std::uint32_t count = 0;
    for (; *path != 0; ++path) {
        if (*path == u'/') {
            count = 0;
        } else if (*path >= u'0' && *path <= u'9') {
            count = count * 10 + static_cast<std::uint32_t>(*path - u'0');
        }
    }
    return count;
}

std::string textOf(std::uint32_t number) {
    std::string text = "From:   \tAnna\r\n\r\nThis is message " + std::to_string(number) + ".\r\n";
    if (number == numberIn("STAND_IN_ENDLESS")) {
        for (int line = 0; line < 400'000; ++line) {
            text += "a line of a long mail, number " + std::to_string(line) + "\r\n";
        }
    }
    return text;
}

BatchMessage emptyMessage(std::uint32_t number, std::uint32_t count) {
    BatchMessage message{};
    message.structSize = sizeof(message);
    message.messageIndex = number - 1;
    message.run = 1;
    message.messageCount = count;
    message.sourceFormat = kFormatPst;
    message.status = kOk;
    message.resultStatus = kOk;
    message.documentFormat = kFormatText;
    message.subject = "Lunch";
    message.senderName = "Anna";
    message.senderAddress = message.displayTo = message.displayCc = message.displayBcc = "";
    message.date = "Tue Mar 05, 2024 09:07 AM";
    message.bodies = kBatchBodyText;
    message.sentTime = kFifthOfMarch;
    return message;
}

}  // namespace

extern "C" Status TernVisitMessages(const BatchRequest* request) {
    const std::uint32_t count = countOf(request->fileName);
    for (std::uint32_t number = 1; number <= count; ++number) {
        while (number == numberIn("STAND_IN_WAIT")) {
            ::pause();
        }
        if (request->wish(request->userData, number - 1, count) != BatchWish::kDocument) {
            continue;
        }
        const std::string text = textOf(number);
        BatchMessage message = emptyMessage(number, count);
        message.document = text.data();
        message.documentSize = text.size();
        if (number == numberIn("STAND_IN_HOSTILE")) {
            message.subject = "../../\xFF<script>alert(1)</script>\"\u202E\x1B[2J";
            message.senderName = "<img src=x onerror=alert(1)>&\"'";
        }
        if (request->visit(request->userData, &message) != kOk) {
            break;
        }
    }
    return kOk;
}
