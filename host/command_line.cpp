#include "command_line.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <limits>
#include <string_view>
#include <vector>

#include "help.h"
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

constexpr char kLanguageHelp[] = "Language of header labels: de, fr, ... or a LANGID such as 0x0407";

struct RawOptions {
    std::string file;
    std::vector<std::string> files;
    std::int32_t message = 1;
    std::string language;
    std::string paper = "a4";
    std::string htmlEngine = "auto";
    std::string pages;
    std::string out;
    int resolution = 96;
    int size = 0;
    std::int64_t timeout = 60;
    std::int64_t thumbnailTimeout = 10;
    bool plainText = false;
    bool tempFiles = false;
    bool noTempFiles = false;
    bool json = false;
    bool quiet = false;
    bool strict = false;
    bool asShown = false;
    std::string format = "pdf";
    std::size_t workers = 0;
    bool noPictures = false;
    bool restart = false;
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

/// Says in plain words what a number must be.
CLI::Validator wholeNumber(int lowest, int highest) {
    const CLI::Range range(lowest, highest);
    const auto check = [range, lowest, highest](std::string& text) {
        return range(text).empty() ? std::string()
                                   : printableName(text) + " is no whole number from " + std::to_string(lowest) + " to " +
                                         std::to_string(highest);
    };
    return {check, range.get_description()};
}

void addTimeout(CLI::App& command, RawOptions& raw) {
    command.add_option("--timeout", raw.timeout, "Seconds that a message may take")
        ->check(wholeNumber(1, 86400))
        ->capture_default_str();
}

void addPaper(CLI::App& command, RawOptions& raw) {
    command.add_option("--paper", raw.paper, "Paper size")
        ->check(CLI::IsMember({"a4", "letter"}, CLI::ignore_case))
        ->capture_default_str();
}

void addResolution(CLI::App& command, RawOptions& raw) {
    command.add_option("-r,--resolution", raw.resolution, "Dots per inch of PNG pages")
        ->check(wholeNumber(10, 1200))
        ->capture_default_str();
}

void addCommonOptions(CLI::App& command, RawOptions& raw) {
    command.add_option("FILE", raw.file, "Mail file: a store (.pst), an Outlook item (.msg) or an Internet message (.eml)")
        ->required();
    command.add_option("-m,--message", raw.message, "Number of the message in a store or an mbox file, from 1")
        ->check(wholeNumber(1, std::numeric_limits<std::int32_t>::max()));
    command.add_flag("--plain-text", raw.plainText, "Ask for a plain text document whatever the message holds");
    CLI::Option* temp = command.add_flag("--temp-files", raw.tempFiles, "HTML travels through temporary files");
    command.add_flag("--no-temp-files", raw.noTempFiles, "HTML travels through memory")->excludes(temp);
    command.add_option("--lang", raw.language, kLanguageHelp)->type_name("LANGUAGE");
    addPaper(command, raw);
    command.add_flag("--json", raw.json, "Print one JSON object");
    command.add_flag("--quiet", raw.quiet, "Print nothing but errors");
    command.add_flag("--strict", raw.strict, "Only what the filter itself gives, no helping hand");
    addTimeout(command, raw);
}

void addRenderOptions(CLI::App& command, RawOptions& raw) {
    command.add_option("-p,--pages", raw.pages, "Pages such as 1,3-5,8-; all without it")->type_name("PAGES");
    addResolution(command, raw);
    command.add_option("-o,--output", raw.out, "NAME.png, where %d is the page number, or NAME.pdf for one PDF")
        ->type_name("FILE");
}

void addListOptions(CLI::App& command, RawOptions& raw) {
    command.add_option("FILE", raw.files, "Mail files, and directories that are searched for mail files")->required();
    command.add_flag("--json", raw.json, "Print one JSON object a line for each message");
    command.add_flag("--strict", raw.strict, "Only what the filter itself gives, no helping hand");
    command.add_option("--lang", raw.language, kLanguageHelp)->type_name("LANGUAGE");
    addTimeout(command, raw);
}

void addHtmlEngine(CLI::App& command, RawOptions& raw) {
    command
        .add_option("--html-engine", raw.htmlEngine,
                    "What lays HTML out; auto takes a browser, if there is one, where it is better")
        ->check(CLI::IsMember({"auto", "embedded", "chromium"}, CLI::ignore_case))
        ->capture_default_str();
}

HtmlEngine htmlEngineOf(const RawOptions& raw) {
    const std::string name = lowerCase(raw.htmlEngine);
    return name == "embedded" ? HtmlEngine::kEmbedded : name == "chromium" ? HtmlEngine::kChromium : HtmlEngine::kAuto;
}

void addExportOptions(CLI::App& command, RawOptions& raw) {
    command.add_option("FILE", raw.files, "Mail files, and directories that are searched for mail files")->required();
    command.add_option("-o,--output", raw.out, "Directory for the outputs and index.html; an export that it holds goes on")
        ->required()
        ->type_name("DIRECTORY");
    command.add_option("--format", raw.format, "What each message becomes")
        ->check(CLI::IsMember({"pdf", "png", "html", "txt"}, CLI::ignore_case))
        ->capture_default_str();
    command.add_option("-j,--jobs", raw.workers, "Messages at a time; without it, one for each processor")
        ->check(wholeNumber(1, 256));
    command.add_flag("--restart", raw.restart, "Replace the export that the directory holds");
    command.add_flag("--no-pictures", raw.noPictures, "Leave the small pictures out of index.html");
    command.add_flag("--plain-text", raw.plainText, "Ask for a plain text document whatever a message holds");
    command.add_option("--lang", raw.language, kLanguageHelp)->type_name("LANGUAGE");
    addPaper(command, raw);
    addResolution(command, raw);
    command.add_flag("--json", raw.json, "Print one JSON object in the end");
    command.add_flag("--quiet", raw.quiet, "Print nothing but errors");
    command.add_flag("--strict", raw.strict, "Only what the filter itself gives, no helping hand");
    addTimeout(command, raw);
}

void addThumbnailOptions(CLI::App& command, RawOptions& raw) {
    command.add_option("FILE", raw.file, "Mail file: a store (.pst), an Outlook item (.msg) or an Internet message (.eml)")
        ->required();
    command.add_option("OUT", raw.out, "PNG file to write")->required();
    command.add_option("SIZE", raw.size, "Pixels of the picture's longer side")->required()->check(wholeNumber(1, 4096));
    command.add_option("--timeout", raw.thumbnailTimeout, "Seconds that it may take")
        ->check(wholeNumber(1, 86400))
        ->capture_default_str();
}

[[noreturn]] void refuse(const std::string& reason) {
    throw CLI::ValidationError(reason);
}

void completeRender(const RawOptions& raw, CommandLine& line) {
    line.job.command = Command::kRender;
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

void completeThumbnail(const RawOptions& raw, CommandLine& line) {
    line.job.command = Command::kThumbnail;
    line.job.route = DocumentRoute::kTemporaryFiles;
    line.job.thumbnailSize = raw.size;
    line.job.htmlEngine = HtmlEngine::kEmbedded;  // quick enough
    line.quiet = true;
    line.timeLimit = std::chrono::seconds(raw.thumbnailTimeout);
}

PageSetup paperOf(const RawOptions& raw) {
    return lowerCase(raw.paper) == "letter" ? kLetter : kA4;
}

std::uint32_t languageOf(const RawOptions& raw) {
    if (raw.language.empty()) {
        return 0;
    }
    const auto language = parseLanguage(raw.language);
    if (!language) {
        refuse("--lang: " + printableName(raw.language) +
               " is neither a LANGID such as 0x0407 nor one of en, de, fr, ro, ja, ko, zh-cn, zh-tw, ar");
    }
    return *language;
}

ListRequest completeList(const RawOptions& raw) {
    return {raw.files, raw.json, languageOf(raw), std::chrono::seconds(raw.timeout), raw.strict};
}

ExportRequest completeExport(const RawOptions& raw) {
    constexpr std::array formats{ExportFormat::kPdf, ExportFormat::kPng, ExportFormat::kHtml, ExportFormat::kText};
    const std::string name = lowerCase(raw.format);
    ExportRequest request;
    request.files = raw.files;
    request.directory = raw.out;
    request.options.format =
        *std::find_if(formats.begin(), formats.end(), [&name](ExportFormat format) { return formatName(format) == name; });
    request.options.paper = lowerCase(raw.paper);
    request.options.resolution = raw.resolution;
    request.options.language = languageOf(raw);
    request.options.plainText = raw.plainText;
    request.options.strict = raw.strict;
    request.options.htmlEngine = htmlEngineOf(raw);
    request.paper = paperOf(raw);
    request.workers = raw.workers;
    request.timeLimit = std::chrono::seconds(raw.timeout);
    request.pictures = !raw.noPictures;
    request.restart = raw.restart;
    request.quiet = raw.quiet;
    request.json = raw.json;
    return request;
}

CommandLine complete(const RawOptions& raw, const CLI::App& info, const CLI::App& document, const CLI::App& thumbnail) {
    CommandLine line;
    line.json = raw.json;
    line.quiet = raw.quiet;
    line.timeLimit = std::chrono::seconds(raw.timeout);
    if (!raw.out.empty()) {
        line.out = raw.out;
    }
    Job& job = line.job;
    job.file = raw.file;
    job.messageNumber = raw.message;
    job.plainTextOnly = raw.plainText;
    job.strict = raw.strict;
    job.completed = !document.parsed() || raw.asShown;
    // Some pictures are too small to travel inside a document, so what is laid out travels through files. A document that is
    // written stays in one piece unless its files are asked for.
    const bool usesFiles = raw.tempFiles || (!document.parsed() && !raw.noTempFiles);
    job.route = usesFiles ? DocumentRoute::kTemporaryFiles : DocumentRoute::kMemory;
    job.paper = paperOf(raw);
    job.htmlEngine = htmlEngineOf(raw);
    job.uiLanguage = languageOf(raw);
    if (info.parsed()) {
        job.command = Command::kInfo;
    } else if (document.parsed()) {
        job.command = Command::kDocument;
        job.deliverDocument = line.out || !line.json;
    } else if (thumbnail.parsed()) {
        completeThumbnail(raw, line);
    } else {
        completeRender(raw, line);
    }
    return line;
}

}  // namespace

std::variant<CommandLine, ListRequest, ExportRequest, EarlyExit> parseCommandLine(int argc, const char* const* argv) {
    CLI::App app("Shows, prints and exports mail", "ternview");
    app.require_subcommand(1);
    app.set_version_flag("--version", TERNVIEW_VERSION);
    app.failure_message(CLI::FailureMessage::simple);
    RawOptions raw;
    CLI::App* info = app.add_subcommand("info", "Tell what a message is and how many pages it has");
    CLI::App* document = app.add_subcommand("document", "Write the document of a message exactly as the filter gives it");
    CLI::App* render = app.add_subcommand("render", "Make PNG pages or a PDF of a message");
    CLI::App* list = app.add_subcommand("list", "List the messages of mail files and of directories");
    CLI::App* exports = app.add_subcommand("export", "Make a file of every message of mail files and of directories");
    CLI::App* thumbnail = app.add_subcommand("thumbnail", "Make a small picture of the first message, as file managers show");
    for (CLI::App* command : {info, document, render}) {
        addCommonOptions(*command, raw);
    }
    CLI::Option* asShown = document->add_flag(
        "--as-shown", raw.asShown, "The document of what is shown, where that is a copy with all text in the right characters");
    asShown->excludes("--strict");
    document
        ->add_option("-o,--output", raw.out, "File, or directory for an HTML document with --temp-files; else standard output")
        ->type_name("FILE");
    addHtmlEngine(*info, raw);
    addHtmlEngine(*exports, raw);
    addRenderOptions(*render, raw);
    addHtmlEngine(*render, raw);
    addListOptions(*list, raw);
    addExportOptions(*exports, raw);
    addThumbnailOptions(*thumbnail, raw);
    describeForPeople(app);
    try {
        const auto isFirstWord = [argv](const CLI::App* command) { return command->check_name(argv[1]); };
        if (argc > 1 && *argv[1] != '-' && std::ranges::none_of(app.get_subcommands({}), isFirstWord)) {
            refuse("There is no command " + printableName(argv[1]));
        }
        app.parse(argc, argv);
        if (list->parsed()) {
            return completeList(raw);
        }
        if (exports->parsed()) {
            return completeExport(raw);
        }
        return complete(raw, *info, *document, *thumbnail);
    } catch (const CLI::ParseError& error) {
        return EarlyExit{app.exit(error) == 0 ? kExitDone : kExitUsage};
    }
}

}  // namespace ternview
