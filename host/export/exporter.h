// One run of an export: from the reader's messages through the workers to files and journal.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "export_command.h"
#include "export_journal.h"
#include "held_signals.h"
#include "mailbox/mailbox_reader.h"
#include "message_outputs.h"
#include "private_directory.h"
#include "progress.h"
#include "render_pool.h"

namespace ternview {

/// What a reader has left of a message; it goes with this.
class MessageDocument {
public:
    explicit MessageDocument(MessageSummary summary) : summary_(std::move(summary)) {}
    ~MessageDocument();
    MessageDocument(const MessageDocument&) = delete;
    MessageDocument& operator=(const MessageDocument&) = delete;

    const MessageSummary& summary() const { return summary_; }

private:
    MessageSummary summary_;
};

/// Ends a run in which no further message could come to anything.
class ExportStopped : public std::runtime_error {
public:
    ExportStopped(int exitCode, const std::string& sentence) : std::runtime_error(sentence), exitCode_(exitCode) {}
    int exitCode() const { return exitCode_; }

private:
    int exitCode_;
};

class Exporter final : private MailboxVisitor {
public:
    /// @param files to be exported
    Exporter(const ExportRequest& request, const std::vector<std::string>& files, ExportJournal& journal);
    ~Exporter() override;

    /// Does everything that is not done yet.
    /// @throws Interrupted, ExportStopped, JobError when nothing can be written
    void run(const HeldSignals& signals);

    /// Ends everything that is under way; nothing of it stays behind.
    void abandon();

    const ExportCounts& counts() const { return counts_; }
    /// Messages that something was missing for on this system, an office suite for example.
    struct MissingPart {
        JobResult result;
        std::uint64_t messages = 0;
    };
    /// By the reason that the messages have in the journal.
    const std::map<std::string, MissingPart>& missingParts() const { return missingParts_; }

    /// A message of which the filter made no document.
    struct Refused {
        std::uint32_t number;
        ternkit::Status status;
        bool isHeardOf = false;  // in the second pass
    };
    struct Source {
        std::string file;  // as a person named it
        FileIdentity identity;
        std::optional<std::size_t> known{};  // in the journal
        std::uint64_t messages = 0;          // 0: not looked into yet
        std::uint32_t underWay = 0;
        bool isEnded = false;
        JobResult end{};
        std::vector<Refused> refused{};  // by their numbers; worth a second attempt
    };
    const std::vector<Source>& sources() const { return sources_; }

private:
    struct Task {
        std::size_t source;
        MessageRecord record;
        std::unique_ptr<MessageDocument> document;
        std::unique_ptr<MessageOutputs> outputs;
    };

    void message(MessageSummary summary) override;
    void fileEnd(std::size_t file, const JobResult& result) override;

    void takeUpSources();
    void takeUpRefused();
    bool hasSecondPass() const;
    void readAndConvert(const HeldSignals& signals);
    MailboxOptions readerOptions();
    void grant();
    void startTasks();
    void start(Task task);
    void waitForWork(const HeldSignals& signals);
    void finish(Task& task, JobResult result);
    void fail(Source& source, MessageRecord record, const JobResult& result);
    static Refused* findRefused(Source& source, std::uint32_t number);
    void endRefused(Source& source);
    void endFileWhenDone(Source& source);
    void enterSource(Source& source, ExportJournal::Kind kind);
    void lookedInto(Source& source, std::uint64_t messages);

    const ExportRequest& request_;
    ExportJournal& journal_;
    std::vector<Source> sources_;
    std::vector<std::size_t> reading_;  // sources, by their place among the files of this pass
    ExportCounts counts_;
    std::size_t unknownStores_ = 0;  // that were not looked into
    std::map<std::string, MissingPart> missingParts_;
    Progress progress_;
    PrivateDirectory documents_;
    bool isPlainTextPass_ = false;
    std::uint32_t granted_ = 0;  // messages that the reader may still give
    std::deque<Task> queue_;
    std::vector<std::optional<Task>> running_;
    std::unique_ptr<RenderPool> pool_;
    std::unique_ptr<MailboxReader> reader_;
};

}  // namespace ternview
