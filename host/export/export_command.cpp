#include "export_command.h"

#include <algorithm>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "document_conversion.h"
#include "export_journal.h"
#include "exporter.h"
#include "held_signals.h"
#include "index_page.h"
#include "json_output.h"
#include "mailbox/mail_files.h"
#include "messages.h"
#include "output_files.h"

namespace ternview {
namespace {

using nlohmann::ordered_json;

constexpr std::size_t kMostWorkers = 256;

void complain(const std::string& sentence) {
    std::cerr << "ternview: " << sentence << '\n';
}

std::string counted(std::uint64_t count) {
    return std::to_string(count) + (count == 1 ? " message" : " messages");
}

/// Something that was not exported.
struct Missing {
    std::string file;
    std::uint32_t message = 0;  // 0: the file as a whole, or the rest of it
    std::uint32_t run = 1;
    std::string reason;
};

/// From the journal, so that nothing needs to be kept for the case.
void forEachMissing(ExportJournal& journal, const Exporter& exporter, const MailFiles& found,
                    const std::function<void(const Missing&)>& take) {
    for (const MailFiles::Problem& problem : found.problems) {
        take({problem.path, 0, 1, failureReason(problem.result)});
    }
    for (const Exporter::Source& source : exporter.sources()) {
        if (!source.known) {
            continue;
        }
        const bool isStore = journal.place(*source.known).isStore;
        journal.forEach(*source.known, [&](const MessageRecord& record) {
            if (!record.failure.empty()) {
                take({source.file, isStore ? record.number : 0, record.run, record.failure});
            }
        });
        if (const std::string& failure = journal.failure(*source.known); !failure.empty()) {
            take({source.file, 0, 1, failure});
        }
    }
}

std::string sentenceOf(const Missing& missing) {
    std::string sentence = printableName(missing.file);
    if (missing.run > 1) {
        sentence += ", messages " + std::to_string(missing.message) + " to " + std::to_string(missing.message + missing.run - 1);
    } else if (missing.message > 0) {
        sentence += ", message " + std::to_string(missing.message);
    }
    return sentence + ": " + missing.reason + ".";
}

/// A run and what there is to say of it in the end.
class Run {
public:
    explicit Run(const ExportRequest& request)
        : request_(request),
          found_(findMailFiles(request.files)),
          journal_(request.directory, request.options,
                   request.restart ? ExportJournal::Start::kAnew : ExportJournal::Start::kContinue),
          exporter_(request, found_.files, journal_) {}

    int run(const HeldSignals& signals) {
        tellChangedFiles();
        try {
            exporter_.run(signals);
        } catch (const Interrupted&) {
            endEarly();
            tellInterruption();
            throw;
        } catch (const ExportStopped& stopped) {
            endEarly();
            complain(stopped.what());
            return stopped.exitCode();
        } catch (const JobError&) {
            endEarly();
            throw;
        }
        exporter_.abandon();
        writeIndexPage(journal_);
        return report();
    }

private:
    /// A file of another size or time is another file: its messages may have other numbers now.
    void tellChangedFiles() const {
        for (const Exporter::Source& source : exporter_.sources()) {
            if (journal_.isChanged(source.identity) && !request_.quiet) {
                complain(printableName(source.file) +
                         ": this file has changed since an earlier export, and is exported anew beside it.");
            }
        }
    }

    void endEarly() {
        exporter_.abandon();
        try {
            if (journal_.fileCount() > 0) {
                writeIndexPage(journal_);
            }
        } catch (const JobError&) {
            // What ended the run is what there is to say.
        }
        journal_.discardIfEmpty();
    }

    void tellInterruption() const {
        if (!request_.quiet) {
            const ExportCounts& counts = exporter_.counts();
            complain("interrupted; " + counted(counts.done + counts.skipped) + " of " + std::to_string(counts.known) +
                     (counts.knowsAll ? "" : " or more") + " are in " + printableName(request_.directory.string()) +
                     ". The same command goes on from there.");
        }
    }

    std::uint64_t failures() const { return exporter_.counts().failed + found_.problems.size(); }

    int report() {
        if (failures() > 0) {
            tellFailures();
        }
        if (request_.json) {
            writeStandardOutput(printableJson(summary().dump(2, ' ', false, ordered_json::error_handler_t::replace)) + "\n");
        } else if (!request_.quiet) {
            writeStandardOutput(sentence());
        }
        if (!exporter_.missingParts().empty()) {
            return kExitMissing;
        }
        return failures() > 0 ? kExitCannotShow : kExitDone;
    }

    void tellFailures() {
        const auto& missingParts = exporter_.missingParts();
        forEachMissing(journal_, exporter_, found_, [&missingParts](const Missing& missing) {
            if (!missingParts.contains(missing.reason)) {
                complain(sentenceOf(missing));
            }
        });
        for (const auto& [reason, part] : missingParts) {
            Job job;
            job.file = counted(part.messages);
            complain(failureMessage(part.result, job));
        }
    }

    std::string sentence() const {
        const ExportCounts& counts = exporter_.counts();
        std::string text = printableName(journal_.indexPath().string()) + ": " + counted(counts.done + counts.skipped);
        if (counts.skipped > 0) {
            text += ", " + std::to_string(counts.skipped) + " of them from an earlier run";
        }
        if (failures() > 0) {
            text += "; " + std::to_string(failures()) + " could not be shown";
        }
        return text + "\n";
    }

    ordered_json summary() {
        const ExportCounts& counts = exporter_.counts();
        ordered_json missing = ordered_json::array();
        forEachMissing(journal_, exporter_, found_, [&missing](const Missing& one) {
            ordered_json object{{"file", one.file}, {"reason", one.reason}};
            if (one.message > 0) {
                object["message"] = one.message;
                object["run"] = one.run;
            }
            missing.push_back(std::move(object));
        });
        return {
            {"directory", request_.directory.string()},
            {"index", journal_.indexPath().filename().string()},
            {"format", formatName(request_.options.format)},
            {"exported", counts.done},
            {"skipped", counts.skipped},
            {"failed", failures()},
            {"failures", std::move(missing)},
        };
    }

    const ExportRequest& request_;
    MailFiles found_;
    ExportJournal journal_;
    Exporter exporter_;
};

std::size_t workerCount(std::size_t wanted) {
    return std::clamp<std::size_t>(wanted != 0 ? wanted : std::thread::hardware_concurrency(), 1, kMostWorkers);
}

}  // namespace

int runExport(const ExportRequest& asked) {
    ExportRequest request = asked;
    request.workers = workerCount(asked.workers);
    const HeldSignals signals;
    try {
        prepareConversions(request.options.format);
        return Run(request).run(signals);
    } catch (const ExportRefusal& refusal) {
        complain(refusal.what());
        return refusal.exitCode();
    } catch (const JobError& error) {
        JobResult result;
        result.failure = error.failure();
        result.detail = error.what();
        Job job;
        job.file = request.directory.string();
        complain(failureMessage(result, job));
        return exitCodeOf(result);
    }
}

}  // namespace ternview
