// Makes examples/welcome.pst: a small store with folders, and in them messages as RTF, as HTML with pictures and as plain text.
//
//     make_welcome_pst examples/welcome.pst

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "rtf_compressor.h"
#include "store_builder.h"

namespace {

using namespace builder;

// -------------------------------------------------------------------------------------------------------------------- pictures

enum Colour : std::uint8_t { kSky, kHaze, kSun, kSea, kDeep, kFoam, kBird, kBeak, kPaper, kInk, kGrid, kBar };

constexpr std::uint8_t kPalette[][3] = {{0xBF, 0xDD, 0xEE}, {0xDD, 0xEE, 0xF6}, {0xFF, 0xD6, 0x66}, {0x3A, 0x86, 0xB0},
                                        {0x1C, 0x5D, 0x86}, {0xF4, 0xFA, 0xFC}, {0x33, 0x40, 0x4C}, {0xE0, 0x6A, 0x3B},
                                        {0xFF, 0xFF, 0xFF}, {0x22, 0x22, 0x33}, {0xD5, 0xDE, 0xE6}, {0x1C, 0x5D, 0x86}};

/// A picture of at most 16 colours, two pixels in a byte.
class Picture {
public:
    Picture(int width, int height, Colour background)
        : m_width(width), m_height(height), m_pixels(static_cast<std::size_t>(width * height), background) {}

    void set(int x, int y, Colour colour) {
        if (x >= 0 && x < m_width && y >= 0 && y < m_height) {
            m_pixels[static_cast<std::size_t>(y * m_width + x)] = colour;
        }
    }
    void rectangle(int left, int top, int width, int height, Colour colour) {
        for (int y = top; y < top + height; ++y) {
            for (int x = left; x < left + width; ++x) {
                set(x, y, colour);
            }
        }
    }
    void disc(int centreX, int centreY, int radius, Colour colour) {
        for (int y = -radius; y <= radius; ++y) {
            for (int x = -radius; x <= radius; ++x) {
                if (x * x + y * y <= radius * radius) {
                    set(centreX + x, centreY + y, colour);
                }
            }
        }
    }
    int width() const { return m_width; }
    int height() const { return m_height; }

    Bytes png() const;

private:
    int m_width;
    int m_height;
    std::vector<Colour> m_pixels;
};

void putBig(Bytes& out, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

void putChunk(Bytes& out, std::string_view type, const Bytes& content) {
    putBig(out, static_cast<std::uint32_t>(content.size()));
    const std::size_t start = out.size();
    out.insert(out.end(), type.begin(), type.end());
    out.insert(out.end(), content.begin(), content.end());
    std::uint32_t crc = ~0U;
    for (std::size_t i = start; i < out.size(); ++i) {
        crc ^= out[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320U : 0U);
        }
    }
    putBig(out, ~crc);
}

/// A zlib stream (RFC 1950) of stored blocks: with four bits a pixel the pictures are small enough as they are.
Bytes zlibStored(const Bytes& content) {
    constexpr std::size_t largestBlock = 0xFFFF;
    Bytes out = {0x78, 0x01};
    std::uint32_t low = 1;
    std::uint32_t high = 0;
    for (const std::uint8_t byte : content) {
        low = (low + byte) % 65521;
        high = (high + low) % 65521;
    }
    for (std::size_t at = 0; at < content.size(); at += largestBlock) {
        const std::size_t size = std::min(largestBlock, content.size() - at);
        out.push_back(at + size == content.size() ? 1 : 0);
        put(out, size, 2);
        put(out, ~size, 2);
        const auto start = content.begin() + static_cast<std::ptrdiff_t>(at);
        out.insert(out.end(), start, start + static_cast<std::ptrdiff_t>(size));
    }
    putBig(out, high << 16 | low);
    return out;
}

Bytes Picture::png() const {
    Bytes header;
    putBig(header, static_cast<std::uint32_t>(m_width));
    putBig(header, static_cast<std::uint32_t>(m_height));
    header.insert(header.end(), {4, 3, 0, 0, 0});  // four bits of a palette
    Bytes palette;
    for (const auto& colour : kPalette) {
        palette.insert(palette.end(), colour, colour + 3);
    }
    Bytes rows;
    for (int y = 0; y < m_height; ++y) {
        rows.push_back(0);  // no filter
        for (int x = 0; x < m_width; x += 2) {
            const std::size_t at = static_cast<std::size_t>(y * m_width + x);
            const int right = x + 1 < m_width ? m_pixels[at + 1] : 0;
            rows.push_back(static_cast<std::uint8_t>(m_pixels[at] << 4 | right));
        }
    }
    Bytes file = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    putChunk(file, "IHDR", header);
    putChunk(file, "PLTE", palette);
    putChunk(file, "IDAT", zlibStored(rows));
    putChunk(file, "IEND", {});
    return file;
}

void drawTern(Picture& picture, int x, int y, int span) {
    for (int i = -span; i <= span; ++i) {
        const double part = std::abs(i) / static_cast<double>(span);
        const int lift = static_cast<int>(std::lround(span * (0.55 * std::sin(part * 2.6) - 0.1)));
        const int thickness = 1 + static_cast<int>(std::lround((1 - part) * span / 7));
        picture.rectangle(x + i, y - lift, 1, thickness, kBird);
    }
    picture.disc(x, y + span / 10, span / 8 + 1, kFoam);
    picture.rectangle(x - span / 8, y - span / 20, span / 4, 2, kBird);  // the cap
    picture.rectangle(x + span / 8, y + span / 10, span / 6, 2, kBeak);
}

/// Three terns over the sea.
Bytes ternsPicture() {
    Picture picture(360, 130, kSky);
    picture.rectangle(0, 62, picture.width(), 28, kHaze);
    picture.disc(298, 38, 19, kSun);
    for (int x = 0; x < picture.width(); ++x) {
        const int crest = 92 + static_cast<int>(std::lround(4 * std::sin(x / 17.0)));
        const int trough = 110 + static_cast<int>(std::lround(3 * std::sin(x / 11.0 + 1)));
        picture.rectangle(x, crest, 1, picture.height() - crest, kSea);
        picture.rectangle(x, crest, 1, 2, kFoam);
        picture.rectangle(x, trough, 1, picture.height() - trough, kDeep);
    }
    drawTern(picture, 92, 52, 44);
    drawTern(picture, 186, 34, 26);
    drawTern(picture, 236, 66, 18);
    return picture.png();
}

/// The birds counted in a week, as bars.
Bytes chartPicture(const std::vector<int>& counts) {
    constexpr int step = 40;
    Picture picture(static_cast<int>(counts.size()) * step + 24, 110, kPaper);
    for (int y = 10; y < 100; y += 18) {
        picture.rectangle(12, y, picture.width() - 24, 1, kGrid);
    }
    for (std::size_t i = 0; i < counts.size(); ++i) {
        const int left = 20 + static_cast<int>(i) * step;
        picture.rectangle(left, 99 - counts[i], 24, counts[i], kBar);
        picture.rectangle(left, 99 - counts[i], 24, 3, kSun);
    }
    picture.rectangle(12, 99, picture.width() - 24, 2, kInk);
    return picture.png();
}

// ------------------------------------------------------------------------------------------------------------------------ texts

/// 100 ns since 1601, UTC.
std::uint64_t timeOf(int year, unsigned month, unsigned day, int hour, int minute) {
    using namespace std::chrono;
    const sys_days date = std::chrono::year(year) / std::chrono::month(month) / std::chrono::day(day);
    const auto seconds = duration_cast<std::chrono::seconds>((date + hours(hour) + minutes(minute)).time_since_epoch());
    constexpr std::int64_t from1601To1970 = 11'644'473'600;
    return static_cast<std::uint64_t>(seconds.count() + from1601To1970) * 10'000'000;
}

/// A document whose text is UTF-8: what is not ASCII becomes "\uN?", as RTF wants it.
Bytes rtfOf(std::string_view document) {
    std::string rtf;
    for (std::size_t at = 0; at < document.size();) {
        const auto lead = static_cast<unsigned char>(document[at]);
        const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        if (length == 1) {
            rtf.push_back(document[at++]);
            continue;
        }
        std::uint32_t code = lead & (0x7FU >> length);
        for (std::size_t k = 1; k < length; ++k) {
            code = code << 6 | (static_cast<unsigned char>(document[at + k]) & 0x3FU);
        }
        at += length;
        const auto unit = [&](std::uint32_t value) { rtf += "\\u" + std::to_string(static_cast<std::int16_t>(value)) + "?"; };
        if (code > 0xFFFF) {
            unit(0xD800 + ((code - 0x10000) >> 10));
            unit(0xDC00 + (code & 0x3FF));
        } else {
            unit(code);
        }
    }
    const std::string block = rtf::Compressed(rtf);
    return {block.begin(), block.end()};
}

constexpr char kWelcome[] = R"(<html><head><meta http-equiv="Content-Type" content="text/html; charset=utf-8">
<style>
 body { font-family: sans-serif; font-size: 11pt; color: #223; }
 h1 { font-size: 17pt; color: #1c5d86; margin: 12pt 0 6pt 0; }
 table.plan { border-collapse: collapse; margin: 8pt 0; }
 table.plan th { background: #1c5d86; color: #ffffff; text-align: left; padding: 4pt 9pt; }
 table.plan td { border: 1px solid #b8c8d4; padding: 4pt 9pt; }
 .note { border-left: 3px solid #ffd666; padding-left: 9pt; color: #556; }
</style></head>
<body>
<h1>A store full of mail</h1>
<p>Dear reader,</p>
<p>a Personal Folders file keeps whole folders of messages. This one lies in the inbox; its pictures came along as
attachments.</p>
<p><img src="cid:terns.png" width="360" height="130" alt="Three terns over the sea"></p>
<table class="plan">
<tr><th>Message</th><th>Its body</th><th>What to look at</th></tr>
<tr><td>1</td><td>HTML</td><td>two pictures and a table</td></tr>
<tr><td>2</td><td>RTF</td><td>fonts, colours, a table</td></tr>
<tr><td>3</td><td>plain text, and RTF</td><td>the RTF is shown; <code>--plain-text</code> shows the text</td></tr>
<tr><td>4</td><td>HTML</td><td>scripts from all over the world</td></tr>
<tr><td>5</td><td>plain text, and HTML</td><td>an answer from the folder of sent items</td></tr>
</table>
<p>Birds counted last week:</p>
<p><img src="cid:week.png" width="304" height="110" alt="Bars, the highest on Saturday"></p>
<p class="note">Nothing in a message is ever fetched from a network: what you see was in the file.</p>
<p>With kind regards,<br>Елена</p>
</body></html>
)";

constexpr char kFieldNotes[] =
    R"({\rtf1\ansi\ansicpg1252\deff0{\fonttbl{\f0\fswiss\fcharset0 Arial;}{\f1\froman\fcharset0 Times New Roman;})"
    R"({\f2\fmodern\fcharset0 Courier New;}}
{\colortbl;\red28\green93\blue134;\red224\green106\blue59;\red85\green85\blue102;}
\viewkind4\uc1
\pard\sa160\b\f0\fs34\cf1 Field notes from the harbour\b0\fs22\cf0\par
\pard\sa120\f1\fs24 The first \i common terns\i0  came back on the {\b 24th of April}, two days earlier than last year. )"
    R"(They fish along the old pier, {\cf2 just where the ferry turns}, and rest on the buoys.\par
\pard\sa60\f0\fs22 What we saw:\par
\pard\li500\fi-250\sa40\bullet\tab 14 common terns, 3 of them ringed\par
\bullet\tab 2 Sandwich terns, far out\par
\bullet\tab one \i Chlidonias niger\i0 , the first in years\par
\pard\sa80\par
\trowd\trgaph108\clbrdrt\brdrs\clbrdrl\brdrs\clbrdrb\brdrs\clbrdrr\brdrs\cellx2400)"
    R"(\clbrdrt\brdrs\clbrdrl\brdrs\clbrdrb\brdrs\clbrdrr\brdrs\cellx4800\pard\intbl\b Place\cell Count\b0\cell\row
\trowd\trgaph108\clbrdrt\brdrs\clbrdrl\brdrs\clbrdrb\brdrs\clbrdrr\brdrs\cellx2400)"
    R"(\clbrdrt\brdrs\clbrdrl\brdrs\clbrdrb\brdrs\clbrdrr\brdrs\cellx4800\pard\intbl Old pier\cell 11\cell\row
\trowd\trgaph108\clbrdrt\brdrs\clbrdrl\brdrs\clbrdrb\brdrs\clbrdrr\brdrs\cellx2400)"
    R"(\clbrdrt\brdrs\clbrdrl\brdrs\clbrdrb\brdrs\clbrdrr\brdrs\cellx4800\pard\intbl Breakwater\cell 6\cell\row
\pard\sa120\par
\f2\fs20\cf3 54.7936 N, 9.4469 E, wind SW 4\par
\pard\sa120\f0\fs22\cf0 Καλή αντάμωση \endash  do svidaniya, до свидания \endash  またね\par
}
)";

constexpr char kMinutesText[] =
    "Hello all,\r\n\r\nhere is what we agreed on:\r\n\r\n  1. count every Saturday at seven\r\n  2. Zoë brings the telescope\r\n"
    "  3. coffee afterwards (café at the pier)\r\n\r\nSee you,\r\nJürgen\r\n";

constexpr char kMinutesRtf[] = R"({\rtf1\ansi\ansicpg1252\deff0{\fonttbl{\f0\fswiss\fcharset0 Arial;}}
\uc1\pard\f0\fs22 Hello all,\par
\par
here is what we agreed on:\par
\par
\pard\li500\fi-300 1.\tab count every Saturday at seven\par
2.\tab Zoë brings the telescope\par
3.\tab coffee afterwards (café at the pier)\par
\pard\par
See you,\par
Jürgen\par
}
)";

constexpr char kScripts[] = R"(<html><head><meta http-equiv="Content-Type" content="text/html; charset=utf-8">
<style>
 body { font-family: sans-serif; font-size: 12pt; color: #223; }
 table.words td { padding: 3pt 12pt 3pt 0; border-bottom: 1px solid #d5dee6; }
 table.words td.language { color: #1c5d86; }
</style></head>
<body>
<p>“Good morning, what a fine day for a walk by the sea.”</p>
<table class="words">
<tr><td class="language">Deutsch</td><td>Guten Morgen, ein schöner Tag für einen Gang ans Meer.</td></tr>
<tr><td class="language">Français</td><td>Bonjour, quelle belle journée pour une promenade au bord de l’océan.</td></tr>
<tr><td class="language">Ελληνικά</td><td>Καλημέρα, τι όμορφη μέρα για μια βόλτα στη θάλασσα.</td></tr>
<tr><td class="language">Русский</td><td>Доброе утро, чудесный день для прогулки у моря.</td></tr>
<tr><td class="language">日本語</td><td>おはようございます。海辺を歩くのにいい日ですね。</td></tr>
<tr><td class="language">中文</td><td>早上好，今天真适合去海边散步。</td></tr>
<tr><td class="language">한국어</td><td>좋은 아침입니다. 바닷가를 걷기 좋은 날이네요.</td></tr>
<tr><td class="language">العربية</td><td dir="rtl">صباح الخير، يا له من يوم جميل للمشي على الشاطئ.</td></tr>
<tr><td class="language">עברית</td><td dir="rtl">בוקר טוב, איזה יום יפה לטיול ליד הים.</td></tr>
<tr><td class="language">ไทย</td><td>สวัสดีตอนเช้า วันนี้อากาศดีเหมาะกับการเดินเล่นริมทะเล</td></tr>
</table>
</body></html>
)";

constexpr char kAnswer[] = R"(<html><head><meta http-equiv="Content-Type" content="text/html; charset=utf-8"></head>
<body style="font-family: sans-serif; font-size: 11pt">
<p>Dear Елена,</p>
<p>thank you for the birds! The count of Saturday is <b>right</b>: I saw the same 84.</p>
<blockquote style="border-left: 2px solid #1c5d86; margin: 6pt 0; padding-left: 8pt; color: #556">
Birds counted last week</blockquote>
<p>Until then,<br>Reader</p>
</body></html>
)";

// ------------------------------------------------------------------------------------------------------------------------ store

void addInbox(Folder& inbox) {
    Message& welcome = inbox.addMessage({.subject = "Welcome — a store full of mail",
                                         .htmlBody = kWelcome,
                                         .senderName = "Елена Соколова",
                                         .senderAddress = "elena@example.org",
                                         .to = "Reader",
                                         .cc = "山田 花子; Γιώργος Παπαδόπουλος",
                                         .submitTime = timeOf(2026, 11, 22, 9, 30),
                                         .importance = 2});
    welcome.attach({.name = "terns.png", .longName = "terns.png", .mimeTag = "image/png", .data = ternsPicture()});
    const std::vector<int> week = {32, 41, 28, 55, 47, 84, 60};
    welcome.attach({.name = "week.png", .longName = "week.png", .mimeTag = "image/png", .data = chartPicture(week)});

    inbox.addMessage({.subject = "Field notes — τα γλαρόνια γύρισαν",
                      .rtfCompressed = rtfOf(kFieldNotes),
                      .senderName = "Γιώργος Παπαδόπουλος",
                      .senderAddress = "giorgos@example.org",
                      .to = "Reader; Елена Соколова",
                      .submitTime = timeOf(2026, 4, 25, 17, 5)});
}

void addProjects(Folder& projects) {
    projects.addFolder("Harbour count")
        .addMessage({.subject = "Saturday count",
                     .subjectPrefix = "RE: ",
                     .plainBody = kMinutesText,
                     .rtfCompressed = rtfOf(kMinutesRtf),
                     .senderName = "Jürgen Groß",
                     .senderAddress = "juergen@example.org",
                     .to = "Zoë; Reader",
                     .bcc = "Archive",
                     .submitTime = timeOf(2026, 5, 4, 6, 45),
                     .importance = 0});
    projects.addFolder("Languages")
        .addMessage({.subject = "Good morning — おはよう — 早上好 — صباح الخير 🌊",
                     .htmlBody = kScripts,
                     .senderName = "山田 花子",
                     .senderAddress = "hanako@example.org",
                     .to = "Reader",
                     .submitTime = timeOf(2026, 6, 1, 22, 10)});
}

void addSentItems(Folder& sent) {
    sent.addMessage({.subject = "Welcome — a store full of mail",
                     .subjectPrefix = "RE: ",
                     .plainBody =
                         "Dear Елена,\r\n\r\nthank you for the birds! The count of Saturday is right: I saw the same 84.\r\n\r\n"
                         "Until then,\r\nReader\r\n",
                     .htmlBody = kAnswer,
                     .senderName = "Reader",
                     .senderAddress = "reader@example.org",
                     .to = "Елена Соколова",
                     .submitTime = timeOf(2026, 11, 22, 14, 2)});
}

void makeStore(const std::string& path) {
    LayoutOptions options{Layout::Unicode, Encoding::Permutative};
    options.allocationMaps = AllocationMaps::None;  // a unit of them would double the file
    StoreBuilder store(options);
    addInbox(store.addFolder("Inbox"));
    addProjects(store.addFolder("Projects"));
    addSentItems(store.addFolder("Sent Items"));
    store.write(path);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_welcome_pst FILE\n");
        return 2;
    }
    try {
        makeStore(argv[1]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "make_welcome_pst: %s: %s\n", argv[1], error.what());
        return 1;
    }
    return 0;
}
