#include "command_line.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <limits>
#include <string_view>

#include "messages.h"

namespace ternview {
namespace {

struct Language {
    std::string_view name;
    std::uint32_t id;
};

// The languages that have header labels.
constexpr std::array kLanguages{
    Language{"en", 0x0409}, Language{"de", 0x0407},    Language{"ro", 0x0418},    Language{"fr", 0x040C}, Language{"ja", 0x0411},
    Language{"zh", 0x0804}, Language{"zh-cn", 0x0804}, Language{"zh-tw", 0x0404}, Language{"ko", 0x0412}, Language{"ar", 0x0401},
};

constexpr PageSetup kA4{};
constexpr PageSetup kLetter{816, 1056, kA4.margin};  // 8.5 by 11 inches

struct RawOptions {
    std::string file;
    std::int32_t message = 1;
    std::string language;
    std::string paper = "a4";
    std::string pages;
    std::string out;
    int resolution = 96;
    std::int64_t timeout = 60;
    bool plainText = false;
    bool tempFiles = false;
    bool noTempFiles = false;
    bool json = false;
    bool quiet = false;
    bool strict = false;
};

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

/// A LANGID in hexadecimal ("0x0407") or a name ("de", "de_DE.UTF-8").
std::optional<std::uint32_t> parseLanguage(const std::string& text) {
    std::string name = lowerCase(text);
    if (name.starts_with("0x")) {
        std::uint32_t id = 0;
        const char* end = name.data() + name.size();
        const auto [stop, error] = std::from_chars(name.data() + 2, end, id, 16);
        return error == std::errc() && stop == end && id > 0 && id <= 0xFFFF ? std::optional(id) : std::nullopt;
    }
    name = name.substr(0, name.find_first_of(".@"));
    std::replace(name.begin(), name.end(), '_', '-');
    for (const std::string& candidate : {name, name.substr(0, name.find('-'))}) {
        const auto found = std::find_if(kLanguages.begin(), kLanguages.end(),
                                        [&candidate](const Language& language) { return language.name == candidate; });
        if (found != kLanguages.end()) {
            return found->id;
        }
    }
    return std::nullopt;
}

void addCommonOptions(CLI::App& command, RawOptions& raw) {
    command.add_option("FILE", raw.file, "Mail file: a store (.pst), an Outlook item (.msg) or an Internet message (.eml)")
        ->required();
    command.add_option("-m,--message", raw.message, "Number of the message in a store, from 1")
        ->check(CLI::Range(1, std::numeric_limits<std::int32_t>::max()));
    command.add_flag("--plain-text", raw.plainText, "Ask for a plain text document whatever the message holds");
    CLI::Option* temp = command.add_flag("--temp-files", raw.tempFiles, "HTML travels through temporary files");
    command.add_flag("--no-temp-files", raw.noTempFiles, "HTML travels through memory")->excludes(temp);
    command.add_option("--lang", raw.language, "Language of header labels: de, fr, ... or a LANGID such as 0x0407");
    command.add_option("--paper", raw.paper, "Paper size")
        ->check(CLI::IsMember({"a4", "letter"}, CLI::ignore_case))
        ->capture_default_str();
    command.add_flag("--json", raw.json, "Print one JSON object");
    command.add_flag("--quiet", raw.quiet, "Print nothing but errors");
    command.add_flag("--strict", raw.strict, "Only what the filter itself gives, no helping hand");
    command.add_option("--timeout", raw.timeout, "Seconds that a message may take")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
}

void addRenderOptions(CLI::App& command, RawOptions& raw) {
    command.add_option("-p,--pages", raw.pages, "Pages such as 1,3-5,8-; all without it");
    command.add_option("-r,--resolution", raw.resolution, "Dots per inch of PNG pages")
        ->check(CLI::Range(10, 1200))
        ->capture_default_str();
    command.add_option("-o,--output", raw.out, "NAME.png, where %d is the page number, or NAME.pdf for one PDF");
}

[[noreturn]] void refuse(const std::string& reason) {
    throw CLI::ValidationError(reason);
}

void completeRender(const RawOptions& raw, CommandLine& line) {
    line.job.command = Command::kRender;
    line.job.route = raw.noTempFiles ? DocumentRoute::kMemory : DocumentRoute::kTemporaryFiles;
    line.job.resolution = raw.resolution;
    if (!raw.pages.empty()) {
        const auto pages = PageSelection::parse(raw.pages);
        if (!pages) {
            refuse("--pages: " + raw.pages + " is no list of pages such as 1,3-5,8-");
        }
        line.job.pages = *pages;
    }
    if (line.out) {
        const std::string extension = lowerCase(line.out->extension().string());
        if (extension != ".png" && extension != ".pdf") {
            refuse("--output: " + printableName(raw.out) + " ends neither in .png nor in .pdf");
        }
        line.job.pageFormat = extension == ".pdf" ? PageFormat::kPdf : PageFormat::kPng;
    }
}

CommandLine complete(const RawOptions& raw, const CLI::App& info, const CLI::App& document) {
    CommandLine line;
    line.json = raw.json;
    line.quiet = raw.quiet;
    line.strict = raw.strict;
    line.timeLimit = std::chrono::seconds(raw.timeout);
    if (!raw.out.empty()) {
        line.out = raw.out;
    }
    Job& job = line.job;
    job.file = raw.file;
    job.messageNumber = raw.message;
    job.plainTextOnly = raw.plainText;
    job.route = raw.tempFiles ? DocumentRoute::kTemporaryFiles : DocumentRoute::kMemory;
    job.paper = lowerCase(raw.paper) == "letter" ? kLetter : kA4;
    job.describe = raw.json;
    if (!raw.language.empty()) {
        const auto language = parseLanguage(raw.language);
        if (!language) {
            refuse("--lang: " + printableName(raw.language) +
                   " is neither a LANGID such as 0x0407 nor one of en, de, fr, ro, ja, ko, zh-cn, zh-tw, ar");
        }
        job.uiLanguage = *language;
    }
    if (info.parsed()) {
        job.command = Command::kInfo;
    } else if (document.parsed()) {
        job.command = Command::kDocument;
        job.deliverDocument = line.out || !line.json;
    } else {
        completeRender(raw, line);
    }
    return line;
}

}  // namespace

std::variant<CommandLine, EarlyExit> parseCommandLine(int argc, const char* const* argv) {
    CLI::App app("Shows mail messages: what they are, their documents, their pages.", "ternview");
    app.require_subcommand(1);
    app.set_version_flag("--version", TERNVIEW_VERSION);
    app.failure_message(CLI::FailureMessage::simple);
    RawOptions raw;
    CLI::App* info = app.add_subcommand("info", "Tell what a message is and how many pages it has");
    CLI::App* document = app.add_subcommand("document", "Write the document of a message exactly as the filter gives it");
    CLI::App* render = app.add_subcommand("render", "Make PNG pages or a PDF of a message");
    for (CLI::App* command : {info, document, render}) {
        addCommonOptions(*command, raw);
    }
    document->add_option("-o,--output", raw.out,
                         "File, or directory for an HTML document with --temp-files; else standard output");
    addRenderOptions(*render, raw);
    try {
        app.parse(argc, argv);
        return complete(raw, *info, *document);
    } catch (const CLI::ParseError& error) {
        return EarlyExit{app.exit(error) == 0 ? kExitDone : kExitUsage};
    }
}

}  // namespace ternview
