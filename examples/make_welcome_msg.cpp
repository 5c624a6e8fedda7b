// Writes examples/welcome.msg: make_welcome_msg WELCOME_EML WELCOME_MSG. The picture is that of the Internet message.

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "msg_builder.h"
#include "rtf_compressor.h"

namespace {

constexpr std::string_view kHtml = R"(<html><head>
<style>
 body { font-family: sans-serif; font-size: 11pt; color: #223; }
 h1 { font-size: 17pt; color: #1c5d86; }
 table.plan { border-collapse: collapse; }
 table.plan th { background: #1c5d86; color: #ffffff; text-align: left; padding: 4pt 9pt; }
 table.plan td { border: 1px solid #b8c8d4; padding: 4pt 9pt; }
 .note { color: #556; }
</style></head>
<body>
<h1>Welcome to ternview</h1>
<p>Dear reader,</p>
<p>this is an Outlook item: one message in a file of its own, whose formatted text is HTML wrapped in compressed RTF, and whose
picture is an attachment that the text names.</p>
<p><img src="cid:terns@example.org" width="360" height="150" alt="Three terns over the sea"></p>
<table class="plan">
<tr><th>Kind of file</th><th>Ends in</th><th>Holds</th></tr>
<tr><td>Internet message</td><td>.eml</td><td>one message</td></tr>
<tr><td>Outlook item</td><td>.msg</td><td>one message</td></tr>
<tr><td>Personal Folders</td><td>.pst</td><td>folders of messages</td></tr>
</table>
<p>Names and words come in every script: Café, Привет, Γειά σου, こんにちは, 你好, שלום.</p>
<p class="note">Nothing in a message is ever fetched from a network: what you see was in the file.</p>
<p>With kind regards,<br>Елена</p>
</body></html>
)";

constexpr std::string_view kPlain =
    "Dear reader,\r\n\r\nthis is an Outlook item: one message in a file of its own.\r\n\r\nWith kind regards,\r\nЕлена\r\n";

/// The bytes of the first PNG in a message, which stands in base64.
std::string pictureOf(const std::string& message) {
    constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes;
    std::uint32_t bits = 0;
    int count = 0;
    const std::size_t part = message.find("Content-Type: image/png");
    std::size_t at = message.find("\n\r\n", part);
    for (at += 3; at < message.size() && message[at] != '-' && message[at] != '='; ++at) {
        const std::size_t digit = kAlphabet.find(message[at]);
        if (digit == std::string_view::npos) {
            continue;  // a line end
        }
        bits = bits << 6 | static_cast<std::uint32_t>(digit);
        if ((count += 6) >= 8) {
            count -= 8;
            bytes += static_cast<char>(bits >> count);
        }
    }
    return bytes;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: make_welcome_msg WELCOME_EML WELCOME_MSG\n");
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    const std::string message{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const std::string picture = pictureOf(message);
    constexpr std::uint64_t kSent = 0x01DD7A64'0B8B9C00;  // 2026-11-22
    msg::MsgBuilder item;
    item.text(msg::kSubject, "Welcome — an item with everything").text(msg::kSenderName, "Елена Соколова");
    item.text(msg::kSenderSmtpAddress, "elena@example.org").text(msg::kDisplayTo, "Reader").text(msg::kDisplayCc, "山田 花子");
    item.recipient(msg::RecipientKind::To, "Reader", "reader@example.org");
    item.recipient(msg::RecipientKind::Cc, "山田 花子", "hanako@example.org");
    item.time(msg::kClientSubmitTime, kSent).number(msg::kImportance, 2);
    item.text(msg::kBody, kPlain).binary(msg::kRtfCompressed, rtf::Compressed(msg::HtmlInRtf(kHtml)));
    item.attach({.name = "terns.png", .contentId = "terns@example.org", .data = picture});
    std::ofstream out(argv[2], std::ios::binary);
    const std::string bytes = item.bytes();
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return picture.empty() || !out.flush() ? 1 : 0;
}
