#include "index_page.h"

#include <glib.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "export_names.h"
#include "messages.h"
#include "output_files.h"
#include "utf.h"

namespace ternview {
namespace {

constexpr std::size_t kBufferSize = std::size_t{1} << 16;
constexpr std::uint32_t kMostPageLinks = 30;

// Rows out of sight cost nothing before they are scrolled to, and every row is about as high, so that thousands of them scroll
// smoothly.
constexpr std::string_view kStyle = R"(
:root { color-scheme: light dark; --line: #d5dade; --soft: #5b6770; --link: #0b57a4; --bad: #a8201a; --sheet: #fff; }
@media (prefers-color-scheme: dark) {
  :root { --line: #3a4148; --soft: #9aa5ae; --link: #82b8f0; --bad: #ff8f85; --sheet: #e4e4e4; }
}
* { box-sizing: border-box; }
body { font: 15px/1.4 system-ui, sans-serif; margin: 0 auto; padding: 1rem; max-width: 64rem; }
h1 { font-size: 1.4rem; margin: 0 0 .25rem; }
h2 { font-size: 1.1rem; margin: 2rem 0 .5rem; overflow-wrap: anywhere; }
header p, h2 small { color: var(--soft); font-weight: normal; margin: 0; }
nav ul { columns: 16rem; padding-left: 1.2rem; }
a { color: var(--link); text-decoration: none; }
a:hover, a:focus { text-decoration: underline; }
ol { list-style: none; margin: 0; padding: 0; }
li.m { display: grid; grid-template-columns: 6rem 4rem 8.5rem 1fr 14rem; gap: 0 .75rem; align-items: start;
  padding: .5rem 0; border-top: 1px solid var(--line); min-height: 6rem; content-visibility: auto;
  contain-intrinsic-size: auto 6rem; }
li.m > * { overflow-wrap: anywhere; }
.p img, .p span { display: block; width: 6rem; height: 5rem; border: 1px solid var(--line); object-fit: cover;
  object-position: top; background: var(--sheet); }
.p span { background: none; border-style: dashed; }
.n, .d, .f { color: var(--soft); font-variant-numeric: tabular-nums; }
.n { text-align: right; }
.g { display: block; font-size: .85rem; max-height: 3.6rem; overflow: auto; }
.w { display: block; color: var(--bad); }
@media (max-width: 44rem) {
  body { padding: .75rem; }
  li.m { grid-template-columns: 6rem auto 1fr; grid-template-rows: auto auto 1fr; }
  .p { grid-row: 1 / span 3; }
  .n { text-align: left; }
  .s, .f { grid-column: 2 / span 2; }
}
)";

constexpr std::string_view kNoSubject = "No subject";

std::string escaped(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const Utf8Step step = readUtf8(text);
        const std::string_view bytes = text.substr(0, step.size);
        text.remove_prefix(step.size);
        if (!step.valid || step.character < 0x20 || (step.character >= 0x7F && step.character < 0xA0)) {
            out += step.character == '\t' || step.character == '\n' ? " " : "\xEF\xBF\xBD";
        } else if (step.character == '&') {
            out += "&amp;";
        } else if (step.character == '<') {
            out += "&lt;";
        } else if (step.character == '>') {
            out += "&gt;";
        } else if (step.character == '"') {
            out += "&quot;";
        } else {
            out += bytes;
        }
    }
    return out;
}

/// A relative address; slashes stay. "./" in front, as a name could look like an address with a scheme.
std::string address(std::string_view name) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string out = "./";
    for (const char byte : name) {
        if (g_ascii_isalnum(byte) || std::string_view("-._~/").find(byte) != std::string_view::npos) {
            out += byte;
        } else {
            const auto value = static_cast<unsigned char>(byte);
            out += {'%', digits[value >> 4], digits[value & 15]};
        }
    }
    return out;
}

/// The only style that the page's policy lets a browser use.
std::string styleSource() {
    std::string digest(32, '\0');
    gsize size = digest.size();
    const std::unique_ptr<GChecksum, decltype(&g_checksum_free)> checksum(g_checksum_new(G_CHECKSUM_SHA256), &g_checksum_free);
    g_checksum_update(checksum.get(), reinterpret_cast<const guchar*>(kStyle.data()), static_cast<gssize>(kStyle.size()));
    g_checksum_get_digest(checksum.get(), reinterpret_cast<guchar*>(digest.data()), &size);
    const std::unique_ptr<gchar, decltype(&g_free)> text(g_base64_encode(reinterpret_cast<const guchar*>(digest.data()), size),
                                                         &g_free);
    return std::string("'sha256-") + text.get() + "'";
}

std::string counted(std::uint64_t count) {
    return std::to_string(count) + (count == 1 ? " message" : " messages");
}

struct Totals {
    std::uint64_t shown = 0;
    std::uint64_t failed = 0;

    Totals& operator+=(const Totals& other) {
        shown += other.shown;
        failed += other.failed;
        return *this;
    }
};

std::string sentence(const Totals& totals) {
    return counted(totals.shown) + (totals.failed == 0 ? "" : ", " + std::to_string(totals.failed) + " could not be shown");
}

/// Files whose messages stand under one heading.
struct Group {
    std::string title;
    std::string path;
    std::vector<std::size_t> files{};
    Totals totals{};
};

class IndexPage {
public:
    explicit IndexPage(ExportJournal& journal) : journal_(journal), file_(PendingFile::Nameless{journal.directory()}) {}

    void write() {
        std::vector<Group> groups = makeGroups();
        Totals all;
        for (Group& group : groups) {
            for (const std::size_t file : group.files) {
                group.totals += totalsOf(file);
            }
            all += group.totals;
        }
        std::erase_if(groups, [](const Group& group) { return group.totals.shown + group.totals.failed == 0; });
        writeHead(all);
        if (groups.size() > 1) {
            writeContents(groups);
        }
        put("</header>\n<main>\n");
        for (std::size_t i = 0; i < groups.size(); ++i) {
            writeGroup(groups[i], i, groups.size() > 1);
        }
        put("</main>\n</body>\n</html>\n");
        flush();
        file_.close();
        file_.commitAs(journal_.indexPath(), PendingFile::Existing::kReplace);
    }

private:
    std::vector<Group> makeGroups() const {
        std::vector<Group> groups{{.title = "Single messages", .path = {}}};
        for (std::size_t file = 0; file < journal_.fileCount(); ++file) {
            const std::filesystem::path path = journal_.identity(file).path;
            if (journal_.place(file).isStore) {
                groups.push_back({.title = path.filename().string(), .path = path.string(), .files = {file}});
            } else {
                groups.front().files.push_back(file);
            }
        }
        return groups;
    }

    Totals totalsOf(std::size_t file) {
        Totals totals;
        journal_.forEach(file, [&totals](const MessageRecord& record) {
            (record.failure.empty() ? totals.shown : totals.failed) += record.run;
        });
        totals.failed += journal_.failure(file).empty() ? 0 : 1;
        return totals;
    }

    void writeHead(const Totals& all) {
        put("<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
            "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src 'self' file:; style-src ");
        put(styleSource());
        put("; base-uri 'none'; form-action 'none'\">\n<meta name=\"referrer\" content=\"no-referrer\">\n"
            "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>Exported mail</title>\n<style>");
        put(kStyle);
        put("</style>\n</head>\n<body>\n<header>\n<h1>Exported mail</h1>\n<p>" + sentence(all) + "</p>\n");
    }

    void writeContents(const std::vector<Group>& groups) {
        put("<nav><ul>\n");
        for (std::size_t i = 0; i < groups.size(); ++i) {
            put("<li><a href=\"#g" + std::to_string(i) + "\">" + escaped(groups[i].title) + "</a></li>\n");
        }
        put("</ul></nav>\n");
    }

    void writeGroup(const Group& group, std::size_t index, bool isOneOfMany) {
        put("<section id=\"g" + std::to_string(index) + "\">\n");
        if (isOneOfMany) {
            put("<h2 title=\"" + escaped(group.path) + "\">" + escaped(group.title) + " <small>" + sentence(group.totals) +
                "</small></h2>\n");
        }
        put("<ol>\n");
        for (const std::size_t file : group.files) {
            journal_.forEach(file, [this, file](const MessageRecord& record) { writeMessage(file, record); });
            if (!journal_.failure(file).empty()) {
                writeFileFailure(file);
            }
        }
        put("</ol>\n</section>\n");
    }

    void writeMessage(std::size_t file, const MessageRecord& record) {
        const FilePlace& place = journal_.place(file);
        const bool isShown = record.failure.empty();
        const std::string link = isShown ? "<a href=\"" + address(journal_.outputName(file, record, 1)) + "\">" : "";
        put("<li class=\"m\"><div class=\"p\">");
        if (isShown && !record.thumbnail.empty()) {
            put(link + "<img src=\"" + address(std::string(kThumbnailDirectory) + "/" + record.thumbnail) +
                "\" alt=\"\" loading=\"lazy\"></a>");
        } else {
            put("<span></span>");
        }
        std::string number = std::to_string(place.isStore ? record.number : place.number);
        if (record.run > 1) {
            number += "\xE2\x80\x93" + std::to_string(record.number + record.run - 1);
        }
        const std::string date = record.sentTime ? localTime(*record.sentTime) : record.date;
        put("</div><span class=\"n\">" + number + "</span><span class=\"d\">" + escaped(date) + "</span><span class=\"s\">");
        const std::string subject = escaped(record.subject.empty() ? kNoSubject : std::string_view(record.subject));
        put(isShown ? link + subject + "</a>" : record.run > 1 ? "" : subject);
        writePageLinks(file, record);
        if (!isShown) {
            put("<span class=\"w\">" + escaped(record.failure) + "</span>");
        }
        put("</span><span class=\"f\">" + escaped(record.sender) + "</span></li>\n");
    }

    void writePageLinks(std::size_t file, const MessageRecord& record) {
        if (record.parts < 2) {
            return;
        }
        put("<span class=\"g\">Pages");
        for (std::uint32_t part = 1; part <= std::min(record.parts, kMostPageLinks); ++part) {
            put(" <a href=\"" + address(journal_.outputName(file, record, part)) + "\">" + std::to_string(part) + "</a>");
        }
        put(record.parts > kMostPageLinks ? " to " + std::to_string(record.parts) + "</span>" : "</span>");
    }

    void writeFileFailure(std::size_t file) {
        const std::string name = std::filesystem::path(journal_.identity(file).path).filename().string();
        put("<li class=\"m\"><div class=\"p\"><span></span></div><span class=\"n\"></span><span class=\"d\"></span>"
            "<span class=\"s\">" +
            escaped(name) + "<span class=\"w\">" + escaped(journal_.failure(file)) +
            "</span></span><span class=\"f\"></span></li>\n");
    }

    void put(std::string_view text) {
        buffer_ += text;
        if (buffer_.size() >= kBufferSize) {
            flush();
        }
    }

    void flush() {
        file_.write(buffer_);
        buffer_.clear();
    }

    ExportJournal& journal_;
    PendingFile file_;
    std::string buffer_;
};

}  // namespace

void writeIndexPage(ExportJournal& journal) {
    IndexPage(journal).write();
}

}  // namespace ternview
