#include "messages.h"

#include <ternkit/formats.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "utf.h"

namespace ternview {
namespace {

using ternkit::Status;

/// What the filter gives for a picture whose data URI does not fit the room that is reckoned for it.
constexpr Status kPictureTooSmall = 0;

struct StatusText {
    Status status;
    std::string_view meaning;
};

constexpr std::array kStatusTexts{
    StatusText{ternkit::kOk, "it succeeded"},
    StatusText{ternkit::kAbsent, "there is nothing there"},
    StatusText{kPictureTooSmall, "a picture in it is too small to travel inside the document"},
    StatusText{ternkit::kNoMemory, "there is not enough memory for the message, or its parts do not make a document"},
    StatusText{ternkit::kSeekFailed, "a part of the file lies where the file has nothing"},
    StatusText{ternkit::kShortWrite, "a temporary file could not be written in full"},
    StatusText{ternkit::kShortRead, "the file ends before it should"},
    StatusText{ternkit::kUnusable, "its content is damaged, or the message has nothing to show"},
    StatusText{ternkit::kCannotOpen, "the file cannot be opened"},
    StatusText{ternkit::kBadArgument, "a part that the message needs is not there"},
    StatusText{ternkit::kMsgCannotOpen, "the file begins like an Outlook item but is none that can be opened"},
    StatusText{ternkit::kEmptyInput, "a part that must hold text is empty"},
    StatusText{ternkit::kPathTooLong, "a temporary file's path is too long"},
    StatusText{ternkit::kNullPointer, "a part of the message is missing"},
    StatusText{ternkit::kWideConversionFailed, "a text cannot be converted to Unicode"},
    StatusText{ternkit::kCannotCreate, "a temporary file could not be made"},
    StatusText{ternkit::kUtf8ConversionFailed, "a text cannot be converted from Unicode"},
    StatusText{ternkit::kLoaderFailed, "its document could not be laid out"},
};

struct FailureText {
    Failure failure;
    std::string_view sentence;  // behind "FILE: "; "%" stands for the detail
    std::string_view advice;
};

constexpr std::string_view kAnotherFile =
    "Choose a mail file: a store (.pst), an Outlook item (.msg) or an Internet message (.eml).";
constexpr std::string_view kTryPlainText = "Try --plain-text.";

constexpr std::array kFailureTexts{
    FailureText{Failure::kNoSuchFile, "there is no such file", "Check the name."},
    FailureText{Failure::kDirectory, "this is a directory, not a mail file", kAnotherFile},
    FailureText{Failure::kUnreadableDirectory, "the directory cannot be read: %", "Check its permissions."},
    FailureText{Failure::kNoMailInDirectory, "there is no mail file in this directory",
                "Files in a directory are taken for mail when their names end in .pst, .msg or .eml, or when it is a Maildir."},
    FailureText{Failure::kNoRegularFile, "this is a device or a pipe, not a file", "Copy what it gives into a file first."},
    FailureText{Failure::kUnreadable, "the file cannot be read: %", "Check its permissions."},
    FailureText{Failure::kEmptyFile, "the file is empty", kAnotherFile},
    FailureText{Failure::kTooShort, "the file is too short to be a mail: it has fewer than 12 bytes", kAnotherFile},
    FailureText{Failure::kNoMail, "this is no mail: it has no header fields such as From or Subject", kAnotherFile},
    FailureText{Failure::kBareLineFeeds, "the mail's lines end in LF alone, where a mail has CR LF, and no text is found in it",
                "Convert it, with unix2dos for example."},
    FailureText{Failure::kNoContentType, "the mail has no Content-Type field, and without it no text is found", ""},
    FailureText{Failure::kNoText, "the message has no text to show", ""},
    FailureText{Failure::kEmptyStore, "the store holds no message", ""},
    FailureText{Failure::kLoader, "the message cannot be shown: %", kTryPlainText},
    FailureText{Failure::kNoSuchPage, "none of the pages asked for exists: the message has %", "Choose others with -p."},
    FailureText{Failure::kOutOfMemory, "the message needs more memory than it may have", kTryPlainText},
    FailureText{Failure::kTimeLimit, "the message was not done within the time limit", "Allow more with --timeout SECONDS."},
    FailureText{Failure::kCrash,
                "the worker process that read the message ended early (%), which a damaged or very large message "
                "can cause",
                kTryPlainText},
    FailureText{Failure::kWorkerProtocol, "the worker process that read the message went wrong and was stopped", kTryPlainText},
    FailureText{Failure::kTemporaryFile, "a temporary file cannot be written: %", "Name another directory for it in TMPDIR."},
    FailureText{Failure::kOutput, "the output cannot be written: %", "Choose another place with -o."},
    FailureText{Failure::kNeedsDirectory, "the message is an HTML document, which with --temp-files comes as several files",
                "Name a directory for them with -o DIRECTORY."},
    FailureText{Failure::kFilterMissing, "the mail filter libternmail.so cannot be loaded (%)",
                "Install the Debian package ternmail, or name the library's file in TERNMAIL_LIBRARY."},
    FailureText{Failure::kBatchMissing,
                "the library libternmail_batch.so, which reads all messages of a file, cannot be loaded (%)",
                "Install the Debian package ternmail, or name the library's file in TERNMAIL_BATCH_LIBRARY."},
    FailureText{Failure::kFontsMissing, "there are no fonts on this system, so no page can be drawn",
                "Install the Debian package fonts-dejavu-core."},
    FailureText{
        Failure::kOfficeMissing, "the message's text is RTF, whose pages need an office suite, and there is none in %",
        "Install the Debian package libreoffice-writer-nogui, or name the program directory of a suite in TERNVIEW_OFFICE."},
    FailureText{Failure::kOfficeProgramMissing, "the message's text is RTF, and the program that lays it out is not there: %",
                "Install the Debian package ternmail."},
    FailureText{Failure::kBrowserMissing, "its pages were to be laid out by the browser Chromium, and there is none in %",
                "Install the Debian package chromium-headless-shell, as scripts/setup --with-browser does, or name a browser's "
                "program in TERNVIEW_BROWSER."},
    FailureText{Failure::kBrowserProgramMissing, "the program that has a browser lay out pages is not there: %",
                "Install the Debian package ternmail."},
    FailureText{Failure::kBrowserUnconfined, "its pages were to be laid out by a browser, which cannot be confined here: %",
                "Allow user namespaces, or set TERNVIEW_BROWSER_SANDBOX=off where something else confines this program."},
};

/// @return null for a failure that leaves its explanation to the status
const FailureText* textOf(Failure failure) {
    const auto found = std::find_if(kFailureTexts.begin(), kFailureTexts.end(),
                                    [failure](const FailureText& text) { return text.failure == failure; });
    return found == kFailureTexts.end() ? nullptr : &*found;
}

std::string fill(std::string_view sentence, std::string_view detail) {
    std::string text(sentence);
    if (const std::size_t mark = text.find('%'); mark != std::string::npos) {
        text.replace(mark, 1, detail);
    }
    return text;
}

/// What the filter says, where its status is all that is known.
std::string statusSuffix(const JobResult& result) {
    const bool noExportCalled = result.status == 0 && result.failure != Failure::kStatus;
    if (result.status >= ternkit::kOk || noExportCalled) {
        return "";
    }
    std::string suffix = " (status " + std::to_string(result.status);
    if (result.status == ternkit::kLoaderFailed) {
        suffix += ", loader status " + std::to_string(result.loaderStatus);
    }
    return suffix + ")";
}

bool isTemporaryFileStatus(Status status) {
    return status == ternkit::kPathTooLong || status == ternkit::kCannotCreate || status == ternkit::kShortWrite ||
           status == ternkit::kWideConversionFailed;
}

/// What to do about a status: a picture that cannot go one way can mostly go the other.
std::string_view adviceFor(Status status) {
    if (isTemporaryFileStatus(status)) {
        return "Try --no-temp-files.";
    }
    return status == kPictureTooSmall ? "Try --temp-files." : kTryPlainText;
}

std::string_view formatName(std::uint32_t format) {
    switch (format) {
        case ternkit::kFormatPst:
            return "Personal Folders store";
        case ternkit::kFormatMsg:
            return "Outlook item";
        case ternkit::kFormatEml:
            return "Internet message";
        case ternkit::kFormatHtml:
            return "HTML";
        case ternkit::kFormatRtf:
            return "RTF";
        case ternkit::kFormatText:
            return "plain text";
        default:
            return "unknown";
    }
}

std::string formatLine(std::uint32_t format) {
    return std::string(formatName(format)) + " (" + std::to_string(format) + ")";
}

/// Whether a character leaves a terminal and the text around it as they are.
bool isHarmless(char32_t character) {
    const bool isControl = character < 0x20 || (character >= 0x7F && character < 0xA0);
    const bool breaksLine = character == 0x2028 || character == 0x2029;
    const bool reorders = (character >= 0x202A && character <= 0x202E) || (character >= 0x2066 && character <= 0x2069);
    return !isControl && !breaksLine && !reorders;
}

/// A store, or a file in mbox form.
bool holdsSeveral(const JobResult& result) {
    return result.messageCount > 0;
}

std::string millimetres(std::uint32_t pixels, std::uint32_t resolution) {
    return std::to_string(std::lround(pixels * 25.4 / resolution));
}

}  // namespace

std::string_view statusMeaning(Status status) {
    const auto found = std::find_if(kStatusTexts.begin(), kStatusTexts.end(),
                                    [status](const StatusText& text) { return text.status == status; });
    return found == kStatusTexts.end() ? "it failed in an unexpected way" : found->meaning;
}

ExitCode exitCodeOf(const JobResult& result) {
    switch (result.failure) {
        case Failure::kFilterMissing:
        case Failure::kBatchMissing:
        case Failure::kFontsMissing:
        case Failure::kOfficeMissing:
        case Failure::kOfficeProgramMissing:
        case Failure::kBrowserMissing:
        case Failure::kBrowserProgramMissing:
        case Failure::kBrowserUnconfined:
            return kExitMissing;
        case Failure::kNeedsDirectory:
            return kExitUsage;
        case Failure::kNone:
            return result.status >= ternkit::kOk ? kExitDone : kExitCannotShow;
        default:
            return kExitCannotShow;
    }
}

std::string failureReason(const JobResult& result) {
    const FailureText* text = textOf(result.failure);
    return text != nullptr ? fill(text->sentence, printableName(result.detail))
                           : "the message cannot be shown: " + std::string(statusMeaning(result.status)) + statusSuffix(result);
}

std::string failureMessage(const JobResult& result, const Job& job) {
    const FailureText* text = textOf(result.failure);
    std::string_view advice = text != nullptr ? text->advice : adviceFor(result.status);
    // A file manager asks for thumbnails; its user has no options to try.
    const bool isForNobody = job.command == Command::kThumbnail && exitCodeOf(result) != kExitMissing;
    if (isForNobody || (job.plainTextOnly && advice == kTryPlainText)) {
        advice = "";
    }
    std::string message = printableName(job.file) + ": " + failureReason(result) + ".";
    return advice.empty() ? message : message + " " + std::string(advice);
}

std::string messageNumberNote(const JobResult& result, const Job& job) {
    if (!holdsSeveral(result) || result.messageIndex + 1 == job.messageNumber) {
        return "";
    }
    return printableName(job.file) + ": there is no message " + std::to_string(job.messageNumber) + "; this is message " +
           std::to_string(result.messageIndex + 1) + " of " + std::to_string(result.messageCount) + ".";
}

std::string layoutNote(const JobResult& result, const Job& job) {
    const std::string& note = result.origin.note;
    return note.empty() ? "" : printableName(job.file) + ": " + printableName(note) + ".";
}

std::string helpNote(Help help, const JobResult& result, const Job& job) {
    const std::string file = printableName(job.file) + ": ";
    switch (help) {
        case Help::kMbox:
            return file + "this file holds " + std::to_string(result.messageCount) + " messages in mbox form; this is message " +
                   std::to_string(result.messageIndex + 1) + ".";
        case Help::kCorrected:
            return file + "the message is not written as the standards ask; a corrected copy of it is shown.";
        case Help::kNoText:
            return file + "the message has no text; its header lines are shown.";
        case Help::kPlainText:
            return file + "the message has no formatted text that can be shown; its plain text is shown.";
        case Help::kWholeText:
            return file +
                   "the mail filter alone would show only a part of the message, or wrong characters; a corrected copy is "
                   "shown.";
    }
    return {};
}

std::string describeMessage(const JobResult& result, const Job& job) {
    const auto line = [](std::string_view label, const std::string& value) {
        std::string text(label);
        text.resize(11, ' ');
        return text + value + "\n";
    };
    std::string text = line("File:", printableName(job.file));
    text += line("Source:", formatLine(result.sourceFormat));
    text += line("Message:", holdsSeveral(result)
                                 ? std::to_string(result.messageIndex + 1) + " of " + std::to_string(result.messageCount)
                                 : "1 of 1");
    text += line("Document:", formatLine(result.documentFormat) + ", " + std::to_string(result.size) + " bytes");
    for (const TempFile& file : result.tempFiles) {
        text += line("", printableName(file.name) + ", " + std::to_string(file.size) + " bytes");
    }
    text += line("Pages:", std::to_string(result.pages));
    text +=
        line("Page size:", millimetres(result.width, result.xResolution) + " x " +
                               millimetres(result.height, result.yResolution) + " mm, " + std::to_string(result.width) + " x " +
                               std::to_string(result.height) + " pixels at " + std::to_string(result.xResolution) + " dpi");
    return text;
}

std::string printableName(std::string_view name) {
    std::string printable;
    while (!name.empty()) {
        const Utf8Step step = readUtf8(name);
        if (!step.valid || !isHarmless(step.character)) {
            printable += '?';
        } else {
            printable += name.substr(0, step.size);
        }
        name.remove_prefix(step.size);
    }
    return printable;
}

}  // namespace ternview
