#include "exporter.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <set>

#include <ternkit/formats.h>

#include "document_conversion.h"
#include "messages.h"

namespace ternview {
namespace {

namespace fs = std::filesystem;
using Clock = WorkerProcess::Clock;

// Documents that wait for a worker, for each worker: enough that none is idle while the reader looks for the next.
constexpr std::size_t kQueuedForEach = 2;
// What a system can lack; workers that a mail has taken over could tell of more.
constexpr std::size_t kMostMissingParts = 8;

/// A file that cannot be looked at gets an identity too; the reader tells why.
FileIdentity identify(const std::string& file) {
    std::error_code error;
    fs::path path = fs::weakly_canonical(file, error);
    if (error) {
        path = fs::absolute(file, error);
    }
    FileIdentity identity{.path = path.string()};
    struct stat status {};
    if (::stat(file.c_str(), &status) == 0) {
        identity.size = static_cast<std::uint64_t>(status.st_size);
        identity.changed = std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec;
    }
    return identity;
}

bool looksLikeStore(const std::string& file) {
    std::string extension = fs::path(file).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension == ".pst";
}

/// What a worker may say of its message. A worker that a mail has taken over may say anything, and must not stop the run or put
/// the blame on something else.
JobResult believed(JobResult result) {
    switch (result.failure) {
        case Failure::kNone:
        case Failure::kLoader:
        case Failure::kOutOfMemory:
        case Failure::kTimeLimit:
        case Failure::kCrash:
        case Failure::kFontsMissing:
        case Failure::kOfficeMissing:
        case Failure::kOfficeProgramMissing:
        case Failure::kBrowserMissing:
        case Failure::kBrowserProgramMissing:
        case Failure::kBrowserUnconfined:
            return result;
        default:
            result.failure = Failure::kWorkerProtocol;
            return result;
    }
}

/// A store, or a file in mbox form, which is treated as one.
bool holdsSeveral(const MessageSummary& summary) {
    return summary.sourceFormat == ternkit::kFormatPst || summary.count > 1;
}

/// Whether a message that the filter refused is worth asking for as plain text.
bool mayHavePlainText(const MessageSummary& summary) {
    const bool hasSeveralBodies = summary.sourceFormat == ternkit::kFormatPst || summary.sourceFormat == ternkit::kFormatMsg;
    return hasSeveralBodies && summary.run == 1 && summary.failure == Failure::kStatus;
}

/// @param status that tells why there is nothing to show
JobResult resultOf(const MessageSummary& summary, ternkit::Status status) {
    JobResult result;
    result.status = status;
    result.resultStatus = summary.resultStatus;
    result.failure = summary.failure == Failure::kNone ? Failure::kStatus : summary.failure;
    result.detail = summary.detail;
    return result;
}

MessageRecord recordOf(const MessageSummary& summary) {
    return {.number = static_cast<std::uint32_t>(summary.number),
            .run = summary.run,
            .stem = {},
            .thumbnail = {},
            .subject = summary.subject,
            .sender = summary.senderName.empty() ? summary.senderAddress : summary.senderName,
            .date = summary.date,
            .sentTime = summary.sentTime,
            .failure = {}};
}

}  // namespace

MessageDocument::~MessageDocument() {
    if (!summary_.directory.empty()) {
        std::error_code ignored;
        fs::remove_all(summary_.directory, ignored);
    }
}

Exporter::Exporter(const ExportRequest& request, const std::vector<std::string>& files, ExportJournal& journal)
    : request_(request),
      journal_(journal),
      progress_(!request.quiet),
      running_(request.workers),
      pool_(std::make_unique<RenderPool>(request.workers)) {
    std::set<FileIdentity> seen;
    for (const std::string& file : files) {
        FileIdentity identity = identify(file);
        if (seen.insert(identity).second) {
            sources_.push_back({.file = file, .identity = std::move(identity)});
        }
    }
}

Exporter::~Exporter() = default;

Exporter::Refused* Exporter::findRefused(Source& source, std::uint32_t number) {
    const auto found = std::lower_bound(source.refused.begin(), source.refused.end(), number,
                                        [](const Refused& refused, std::uint32_t wanted) { return refused.number < wanted; });
    return found != source.refused.end() && found->number == number ? &*found : nullptr;
}

void Exporter::abandon() {
    progress_.clear();
    reader_.reset();
    pool_.reset();
    running_.clear();
    queue_.clear();
}

/// Files that are there already are not even read. One that was not looked into counts as one message, which of a store says
/// little.
void Exporter::takeUpSources() {
    for (std::size_t i = 0; i < sources_.size(); ++i) {
        Source& source = sources_[i];
        ++counts_.known;
        unknownStores_ += looksLikeStore(source.file) ? 1 : 0;
        source.known = journal_.find(source.identity);
        const std::uint64_t done = source.known ? journal_.doneCount(*source.known) : 0;
        counts_.skipped += done;
        if (source.known && journal_.isComplete(*source.known)) {
            lookedInto(source, done);
            continue;
        }
        if (source.known) {
            journal_.takeUp(*source.known);
        }
        reading_.push_back(i);
    }
    counts_.knowsAll = unknownStores_ == 0;
}

void Exporter::lookedInto(Source& source, std::uint64_t messages) {
    if (source.messages > 0) {
        return;
    }
    source.messages = std::max<std::uint64_t>(messages, 1);
    counts_.known += source.messages - 1;
    unknownStores_ -= looksLikeStore(source.file) ? 1 : 0;
    counts_.knowsAll = unknownStores_ == 0;
}

MailboxOptions Exporter::readerOptions() {
    MailboxOptions options;
    options.plainTextOnly = request_.options.plainText || isPlainTextPass_;
    options.documents = true;
    options.withHelp = !request_.options.strict;
    options.uiLanguage = request_.options.language;
    options.timeLimit = request_.timeLimit;
    options.documentDirectory = documents_.path();
    options.wanted = [this](std::size_t file, std::int32_t number) {
        Source& source = sources_[reading_[file]];
        const auto wanted = static_cast<std::uint32_t>(number);
        if (isPlainTextPass_) {
            return findRefused(source, wanted) != nullptr;
        }
        return !source.known || !journal_.isDone(*source.known, wanted);
    };
    return options;
}

void Exporter::run(const HeldSignals& signals) {
    takeUpSources();
    readAndConvert(signals);
    if (hasSecondPass()) {
        takeUpRefused();
        readAndConvert(signals);
    }
}

bool Exporter::hasSecondPass() const {
    return !isPlainTextPass_ && !request_.options.plainText && !request_.options.strict;
}

/// A store's messages without formatted text are shown by their plain text, as a single one is. Asking for both kinds of text at
/// once is not possible, so those are visited in a second pass.
void Exporter::takeUpRefused() {
    isPlainTextPass_ = true;
    reading_.clear();
    for (std::size_t i = 0; i < sources_.size(); ++i) {
        if (!sources_[i].refused.empty()) {
            reading_.push_back(i);
        }
    }
}

void Exporter::readAndConvert(const HeldSignals& signals) {
    if (reading_.empty()) {
        return;
    }
    std::vector<std::string> files;
    for (const std::size_t source : reading_) {
        files.push_back(sources_[source].file);
    }
    granted_ = 0;
    reader_ = std::make_unique<MailboxReader>(std::move(files), readerOptions());
    while (!reader_->done() || !queue_.empty() || !pool_->isIdle()) {
        startTasks();
        grant();
        waitForWork(signals);
        progress_.show(counts_);
    }
}

/// As many as there is room for, so that documents do not pile up.
void Exporter::grant() {
    const std::size_t room = pool_->size() * kQueuedForEach;
    if (!reader_->done() && granted_ + queue_.size() < room) {
        const auto more = static_cast<std::uint32_t>(room - granted_ - queue_.size());
        reader_->grant(more);
        granted_ += more;
    }
}

void Exporter::startTasks() {
    while (!queue_.empty() && !pool_->isFull()) {
        Task task = std::move(queue_.front());
        queue_.pop_front();
        start(std::move(task));
    }
}

void Exporter::start(Task task) {
    const MessageSummary& summary = task.document->summary();
    task.outputs = std::make_unique<MessageOutputs>(journal_, *sources_[task.source].known);
    const ConversionTask conversion{.format = request_.options.format,
                                    .paper = request_.paper,
                                    .htmlEngine = request_.options.htmlEngine,
                                    .resolution = request_.options.resolution,
                                    .thumbnail = request_.pictures,
                                    .documentFormat = summary.documentFormat,
                                    .fileSize = sources_[task.source].identity.size,
                                    .document = summary.directory / summary.files.front().name,
                                    .title = summary.subject};
    const auto free = std::find(running_.begin(), running_.end(), std::nullopt);
    free->emplace(std::move(task));
    pool_->start([conversion](FrameWriter& out) { convertDocument(conversion, out); },
                 static_cast<std::size_t>(free - running_.begin()), *(*free)->outputs,
                 {(*free)->document->summary().directory.string(), request_.timeLimit});
}

void Exporter::waitForWork(const HeldSignals& signals) {
    std::vector<pollfd> watched{{signals.descriptor(), POLLIN, 0}, {reader_->descriptor(), POLLIN, 0}};
    pool_->watch(watched);
    std::optional<Clock::time_point> until = pool_->deadline();
    const auto earlier = [&until](std::optional<Clock::time_point> other) {
        until = !until || (other && *other < *until) ? other : until;
    };
    earlier(reader_->deadline());
    if (progress_.isShown()) {
        earlier(Clock::now() + kProgressInterval);
    }
    const auto stopped = waitForAny(watched, until);
    reader_->postpone(stopped);
    pool_->postpone(stopped);
    const auto woken = Clock::now();
    signals.check();
    reader_->attend(*this);
    for (RenderPool::Finished& finished : pool_->attend()) {
        std::optional<Task> task;
        task.swap(running_[finished.token]);
        finish(*task, believed(std::move(finished.result)));
    }
    pool_->postpone(Clock::now() - woken);
}

void Exporter::finish(Task& task, JobResult result) {
    Source& source = sources_[task.source];
    --source.underWay;
    if (task.outputs->isComplete() && task.outputs->commit(journal_, task.record)) {
        ++counts_.done;
    } else {
        if (task.outputs->isComplete()) {
            result.failure = Failure::kOutput;
            result.detail = "even its shortest name is too long there";
        } else if (result.failure == Failure::kNone) {
            result.failure = Failure::kWorkerProtocol;
        }
        fail(source, std::move(task.record), result);
    }
    endFileWhenDone(source);
}

void Exporter::fail(Source& source, MessageRecord record, const JobResult& result) {
    record.failure = failureReason(result);
    if (exitCodeOf(result) == kExitMissing &&
        (missingParts_.size() < kMostMissingParts || missingParts_.contains(record.failure))) {
        MissingPart& part = missingParts_[record.failure];
        part.result = result;
        part.messages += record.run;
    }
    counts_.failed += record.run;
    journal_.add(*source.known, record);
}

// ---- what the reader tells

void Exporter::message(MessageSummary summary) {
    auto document = std::make_unique<MessageDocument>(std::move(summary));
    const MessageSummary& told = document->summary();
    granted_ -= granted_ > 0 ? 1 : 0;
    Source& source = sources_[reading_[told.file]];
    lookedInto(source, told.count);
    enterSource(source, holdsSeveral(told) ? ExportJournal::Kind::kStore : ExportJournal::Kind::kMessage);
    MessageRecord record = recordOf(told);
    Refused* refused = isPlainTextPass_ ? findRefused(source, record.number) : nullptr;
    if (refused != nullptr) {
        refused->isHeardOf = true;
    }
    if (told.failure == Failure::kNone && !told.files.empty()) {
        ++source.underWay;
        queue_.push_back({reading_[told.file], std::move(record), std::move(document), nullptr});
    } else if (hasSecondPass() && mayHavePlainText(told)) {
        source.refused.push_back({record.number, told.status});
    } else {
        fail(source, std::move(record), resultOf(told, refused != nullptr ? refused->status : told.status));
    }
}

void Exporter::fileEnd(std::size_t file, const JobResult& result) {
    if (exitCodeOf(result) == kExitMissing) {
        Job job;
        job.file = sources_[reading_[file]].file;
        throw ExportStopped(kExitMissing, failureMessage(result, job));
    }
    Source& source = sources_[reading_[file]];
    lookedInto(source, std::max<std::uint64_t>(result.messageCount, source.known ? journal_.doneCount(*source.known) : 0));
    if (isPlainTextPass_) {
        endRefused(source);
    } else {
        source.isEnded = true;
        source.end = result;
    }
    endFileWhenDone(source);
}

/// Those that the second pass did not come to stay refused.
void Exporter::endRefused(Source& source) {
    for (const Refused& refused : source.refused) {
        if (!refused.isHeardOf) {
            JobResult result;
            result.failure = Failure::kStatus;
            result.status = refused.status;
            MessageRecord record;
            record.number = refused.number;
            fail(source, std::move(record), result);
        }
    }
    source.refused.clear();
}

/// Only then is it true that everything in front of the file's end is done.
void Exporter::endFileWhenDone(Source& source) {
    if (!source.isEnded || source.underWay > 0 || !source.refused.empty()) {
        return;
    }
    enterSource(source, ExportJournal::Kind::kUnknown);
    const bool isFailed = source.end.failure != Failure::kNone;
    counts_.failed += isFailed ? 1 : 0;
    journal_.close(*source.known, isFailed ? failureReason(source.end) : "");
}

void Exporter::enterSource(Source& source, ExportJournal::Kind kind) {
    source.known = journal_.enter(source.identity, kind, sources_.size() == 1);
}

}  // namespace ternview
