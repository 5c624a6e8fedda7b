#include "file_visit.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include <ternkit/batch.h>
#include <ternkit/formats.h>

#include "document_files.h"
#include "explanation.h"
#include "filter_module.h"
#include "mailbox_frames.h"
#include "repair/helping_hands.h"
#include "repair/mbox.h"
#include "repair/temporary_copy.h"

namespace ternview {
namespace {

constexpr std::uint32_t kLastNumber = std::numeric_limits<std::int32_t>::max();

std::string fieldOf(const char* text) {
    return text == nullptr ? std::string() : std::string(cutText(text));
}

MessageSummary summarise(const ternkit::BatchMessage& message) {
    MessageSummary summary;
    summary.number = static_cast<std::int32_t>(std::min(message.messageIndex, kLastNumber - 1) + 1);
    summary.run = std::clamp(message.run, 1U, kLastNumber - static_cast<std::uint32_t>(summary.number) + 1);
    summary.count = message.messageCount;
    summary.sourceFormat = message.sourceFormat;
    summary.status = message.status;
    summary.resultStatus = message.resultStatus;
    summary.subject = fieldOf(message.subject);
    summary.senderName = fieldOf(message.senderName);
    summary.senderAddress = fieldOf(message.senderAddress);
    summary.displayTo = fieldOf(message.displayTo);
    summary.displayCc = fieldOf(message.displayCc);
    summary.displayBcc = fieldOf(message.displayBcc);
    summary.date = fieldOf(message.date);
    if (message.sentTime != ternkit::kBatchNoTime) {
        summary.sentTime = message.sentTime;
    }
    summary.bodies = message.bodies;
    summary.size = message.size;
    return summary;
}

JobResult resultOf(const MessageSummary& message) {
    JobResult result;
    result.status = message.status;
    result.failure = message.failure;
    return result;
}

/// What a message is in the file that the program named, when it is visited in a copy of its own.
struct Standing {
    std::int32_t number;
    std::uint32_t count;
    std::uint64_t size;
    std::vector<Help> helps;
};

/// One call of the library. What the callbacks throw must not pass through it: it is kept, and ends the visit.
class FileVisit {
public:
    FileVisit(MessageSender& sender, std::size_t fileIndex, const MailFile& file, std::optional<Standing> standing)
        : sender_(sender), fileIndex_(fileIndex), file_(file), standing_(std::move(standing)) {}

    /// Sends every message, but for one that is worth another attempt.
    ternkit::Status run(const BatchModule& module) {
        sender_.beginMessage();
        const ternkit::BatchRequest request{.structSize = sizeof(request),
                                            .fileName = file_.name().c_str(),
                                            .plainTextOnly = plainText(),
                                            .userData = this,
                                            .wish = askForWish,
                                            .visit = takeMessage};
        const ternkit::Status status = module.visit(request);
        if (thrown_) {
            std::rethrow_exception(thrown_);
        }
        return status;
    }

    /// The message that was not sent, if there is one.
    const std::optional<MessageSummary>& refused() const { return refused_; }
    std::uint32_t messageCount() const { return messageCount_; }
    std::uint32_t sourceFormat() const { return sourceFormat_; }

private:
    std::uint32_t plainText() const {
        if (sender_.options().plainTextOnly) {
            return ternkit::kBatchPlainTextAlways;
        }
        return sender_.options().withHelp ? ternkit::kBatchPlainTextInstead : ternkit::kBatchPlainTextNever;
    }

    static ternkit::BatchWish askForWish(void* self, std::uint32_t index, std::uint32_t) {
        auto& visit = *static_cast<FileVisit*>(self);
        try {
            return visit.thrown_ ? ternkit::BatchWish::kPass : visit.wish(index);
        } catch (...) {
            visit.thrown_ = std::current_exception();
            return ternkit::BatchWish::kPass;
        }
    }

    static std::int32_t takeMessage(void* self, const ternkit::BatchMessage* message) {
        auto& visit = *static_cast<FileVisit*>(self);
        if (visit.thrown_) {
            return 0;
        }
        try {
            visit.take(*message);
            return 1;
        } catch (...) {
            visit.thrown_ = std::current_exception();
            return 0;
        }
    }

    ternkit::BatchWish wish(std::uint32_t index) {
        sender_.beginMessage();
        if (!sender_.options().documents) {
            return ternkit::BatchWish::kSummary;
        }
        const std::int32_t number =
            standing_ ? standing_->number : static_cast<std::int32_t>(std::min(index, kLastNumber - 1) + 1);
        return sender_.isWanted(fileIndex_, number) ? ternkit::BatchWish::kDocument : ternkit::BatchWish::kPass;
    }

    void take(const ternkit::BatchMessage& message) {
        MessageSummary summary = summarise(message);
        if (standing_) {
            stand(summary);
        }
        messageCount_ = summary.count;
        sourceFormat_ = summary.sourceFormat;
        const bool hasRichBody = (summary.bodies & (ternkit::kBatchBodyHtml | ternkit::kBatchBodyRtf)) != 0;
        if (summary.status >= ternkit::kOk && summary.sourceFormat == ternkit::kFormatPst && !hasRichBody &&
            plainText() == ternkit::kBatchPlainTextInstead) {
            summary.helps.push_back(Help::kPlainText);
        }
        if (summary.status < ternkit::kOk) {
            explain(summary);
        } else if (sender_.options().documents && (message.document != nullptr || message.htmlPath != nullptr)) {
            keepDocument(message, summary);
        }
        const bool maybeCorrected = summary.sourceFormat == ternkit::kFormatEml || summary.sourceFormat == ternkit::kFormatMsg;
        if (sender_.options().withHelp && maybeCorrected && isRefused(resultOf(summary))) {
            refused_ = std::move(summary);
        } else {
            sender_.send(summary);
        }
    }

    void stand(MessageSummary& summary) const {
        summary.number = standing_->number;
        summary.count = standing_->count;
        summary.size = standing_->size;
        summary.helps = standing_->helps;
        if (std::find(summary.helps.begin(), summary.helps.end(), Help::kNoText) != summary.helps.end()) {
            summary.bodies = 0;
        }
    }

    void explain(MessageSummary& summary) const {
        summary.failure = summary.sourceFormat != ternkit::kFormatPst ? explainStatus(file_, summary.status) : Failure::kStatus;
    }

    void keepDocument(const ternkit::BatchMessage& message, MessageSummary& summary) const {
        try {
            summary.files = placeDocument(message, sender_.nextDirectory());
            summary.documentFormat = message.documentFormat;
        } catch (const JobError& error) {
            summary.failure = error.failure();
            summary.detail = cutText(error.what());
        }
    }

    MessageSender& sender_;
    std::size_t fileIndex_;
    const MailFile& file_;
    std::optional<Standing> standing_;
    std::optional<MessageSummary> refused_;
    std::uint32_t messageCount_ = 0;
    std::uint32_t sourceFormat_ = 0;
    std::exception_ptr thrown_;
};

/// Visits a copy of a message in its place. @return nothing when the filter refuses that one too or there is no room for it, and
/// nothing was sent
std::optional<JobResult> visitCopy(const BatchModule& module, MessageSender& sender, std::size_t index,
                                   const CorrectedCopy& corrected, Standing standing) {
    standing.helps.push_back(corrected.help);
    const auto copy = TemporaryCopy::ifThereIsRoom(corrected.bytes);
    if (!copy) {
        return std::nullopt;
    }
    const MailFile copied(copy->path());
    FileVisit visit(sender, index, copied, std::move(standing));
    if (visit.run(module) != ternkit::kOk || visit.refused()) {
        return std::nullopt;
    }
    JobResult result;
    result.status = ternkit::kOk;
    result.messageCount = 1;
    result.sourceFormat = visit.sourceFormat();
    return result;
}

/// Visits a file, and a message that the filter refuses or of which it leaves out a part in a corrected copy.
JobResult visitWithHelp(const BatchModule& module, MessageSender& sender, std::size_t index, const MailFile& file,
                        const std::optional<Standing>& standing) {
    const auto standingOfCopy = [&standing, &file] { return standing.value_or(Standing{1, 1, file.size(), {}}); };
    const Attachments attachments = sender.options().documents ? Attachments::kCopied : Attachments::kLeftOut;
    if (const auto complete = sender.options().withHelp ? completeCopy(file, attachments) : std::nullopt) {
        if (const auto result = visitCopy(module, sender, index, *complete, standingOfCopy())) {
            return *result;
        }
    }
    FileVisit visit(sender, index, file, standing);
    JobResult result;
    result.status = visit.run(module);
    result.messageCount = visit.messageCount();
    result.sourceFormat = visit.sourceFormat();
    if (result.status < ternkit::kOk) {
        result.failure = explainStatus(file, result.status);
    }
    if (!visit.refused()) {
        return result;
    }
    const std::optional<CorrectedCopy> corrected = correctedCopy(file, resultOf(*visit.refused()));
    if (!corrected || !visitCopy(module, sender, index, *corrected, standingOfCopy())) {
        sender.send(*visit.refused());
    }
    return result;
}

/// Takes a file with several messages apart.
JobResult visitMbox(const BatchModule& module, MessageSender& sender, std::size_t index, const Mbox& mbox) {
    JobResult result;
    result.status = ternkit::kOk;
    result.sourceFormat = ternkit::kFormatEml;
    result.messageCount = static_cast<std::uint32_t>(std::min<std::size_t>(mbox.count(), kLastNumber));
    for (std::uint32_t i = 0; i < result.messageCount; ++i) {
        const auto number = static_cast<std::int32_t>(i + 1);
        sender.beginMessage();
        if (!sender.isWanted(index, number)) {
            continue;
        }
        std::string bytes;
        std::unique_ptr<const TemporaryCopy> copy;
        try {
            bytes = mbox.message(i);
            copy = std::make_unique<TemporaryCopy>(bytes);
        } catch (const JobError& error) {
            MessageSummary lost;
            lost.number = number;
            lost.count = result.messageCount;
            lost.sourceFormat = ternkit::kFormatEml;
            lost.failure = error.failure();
            lost.detail = cutText(error.what());
            sender.send(lost);
            continue;
        }
        visitWithHelp(module, sender, index, MailFile(copy->path()),
                      Standing{number, result.messageCount, bytes.size(), {Help::kMbox}});
    }
    return result;
}

}  // namespace

JobResult visitMailFile(const BatchModule& module, MessageSender& sender, const std::string& path, std::size_t index) {
    JobResult result;
    try {
        result.status = ternkit::kCannotOpen;  // what the filter says of such a file
        const MailFile file(path);
        sender.beginFile(file.size());
        result.status = 0;
        const std::optional<Mbox> mbox =
            sender.options().withHelp ? Mbox::open(file.descriptor(), [&sender] { sender.tellOfPass(); }) : std::nullopt;
        const bool holdsSeveral = mbox && mbox->count() > 1;
        return holdsSeveral ? visitMbox(module, sender, index, *mbox) : visitWithHelp(module, sender, index, file, std::nullopt);
    } catch (const JobError& error) {
        result.failure = error.failure();
        result.detail = error.what();
    } catch (const std::bad_alloc&) {
        result.failure = Failure::kOutOfMemory;
    }
    return result;
}

}  // namespace ternview
