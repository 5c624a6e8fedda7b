#include "repair/helping_hands.h"

#include <algorithm>
#include <memory>
#include <new>
#include <optional>

#include "repair/canonical_message.h"
#include "repair/lenient_form.h"
#include "repair/mbox.h"
#include "repair/temporary_copy.h"

namespace ternview {
namespace {

constexpr std::uint64_t kLargestMessage = std::uint64_t{512} << 20;

bool isItem(const MailFile& file) {
    return file.beginning(8) == "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1";
}

bool isInternetMessage(const MailFile& file) {
    return !file.beginning(4).starts_with("!BDN") && !isItem(file);
}

bool isShown(const JobResult& result) {
    return result.status >= ternkit::kOk && result.failure == Failure::kNone;
}

/// Shows a message by the filter, and one of a store or an item that it refuses by its plain text.
JobResult showRichOrPlain(const MailFile& file, const Job& job, const ShowMessage& show) {
    JobResult result = show(file, job);
    if (!isRefused(result) || isInternetMessage(file) || job.plainTextOnly) {
        return result;
    }
    Job plain = job;
    plain.plainTextOnly = true;
    JobResult again = show(file, plain);
    again.helps.push_back(Help::kPlainText);
    return isShown(again) ? again : result;
}

/// @return nothing when the filter does not show the copy either, or there is no room for it
std::optional<JobResult> showCopy(const std::optional<CorrectedCopy>& corrected, const Job& job, const ShowMessage& show) {
    const auto copy = corrected ? TemporaryCopy::ifThereIsRoom(corrected->bytes) : nullptr;
    if (!copy) {
        return std::nullopt;
    }
    JobResult result = showRichOrPlain(MailFile(copy->path()), job, show);
    result.helps.push_back(corrected->help);
    return isShown(result) ? std::optional(std::move(result)) : std::nullopt;
}

JobResult showOrCorrect(const MailFile& file, const Job& job, const ShowMessage& show) {
    if (auto complete = showCopy(job.completed ? completeCopy(file) : std::nullopt, job, show)) {
        return *complete;
    }
    const JobResult result = showRichOrPlain(file, job, show);
    return showCopy(correctedCopy(file, result), job, show).value_or(result);
}

std::optional<CorrectedCopy> completeItem(const MailFile& file, Attachments attachments) {
    std::optional<ItemCopy> copy = itemCopy(file.handle(), attachments);
    return copy ? std::optional(CorrectedCopy{std::move(copy->bytes), Help::kWholeText}) : std::nullopt;
}

std::optional<CorrectedCopy> correctedItem(const MailFile& file) {
    std::optional<ItemCopy> copy = itemCopy(file.handle(), Attachments::kCopied, RichText::kLeftOut);
    return copy ? std::optional(CorrectedCopy{std::move(copy->bytes), copy->isPlain ? Help::kPlainText : Help::kCorrected})
                : std::nullopt;
}

std::optional<CorrectedCopy> completeMessage(const MailFile& file) {
    const std::string message = file.beginning(static_cast<std::size_t>(file.size()));
    const bool isForeign = hasForeignForm(message);
    if (!isForeign && !losesText(message)) {
        return std::nullopt;
    }
    std::optional<CanonicalMessage> copy = canonicalMessage(message);
    if (!copy) {
        return std::nullopt;
    }
    return CorrectedCopy{std::move(copy->bytes), !copy->hasText ? Help::kNoText
                                                 : isForeign    ? Help::kCorrected
                                                                : Help::kWholeText};
}

}  // namespace

std::optional<CorrectedCopy> completeCopy(const MailFile& file, Attachments attachments) {
    try {
        if (isItem(file)) {
            return completeItem(file, attachments);
        }
        return isInternetMessage(file) && file.size() <= kLargestMessage ? completeMessage(file) : std::nullopt;
    } catch (const std::bad_alloc&) {
        return std::nullopt;  // the filter may need less for what it shows
    }
}

bool isRefused(const JobResult& result) {
    const bool isForMessage = result.status != ternkit::kLoaderFailed && result.status != ternkit::kShortWrite;
    return result.status < ternkit::kOk && isForMessage && result.documentFormat == 0;
}

std::optional<CorrectedCopy> correctedCopy(const MailFile& file, const JobResult& result) {
    const bool isNoMail =
        result.failure == Failure::kNoMail || result.failure == Failure::kEmptyFile || result.failure == Failure::kTooShort;
    if (!isRefused(result) || isNoMail) {
        return std::nullopt;
    }
    if (isItem(file)) {
        return correctedItem(file);
    }
    if (!isInternetMessage(file) || file.size() > kLargestMessage) {
        return std::nullopt;
    }
    std::optional<CanonicalMessage> message = canonicalMessage(file.beginning(static_cast<std::size_t>(file.size())));
    if (!message) {
        return std::nullopt;
    }
    return CorrectedCopy{std::move(message->bytes), message->hasText ? Help::kCorrected : Help::kNoText};
}

JobResult showWithHelp(const MailFile& file, const Job& job, const ShowMessage& show) {
    const std::optional<Mbox> mbox = Mbox::open(file.descriptor());
    if (!mbox || mbox->count() == 1) {  // one message may have its separator line and be read all the same
        return showOrCorrect(file, job, show);
    }
    const std::size_t index = std::min(static_cast<std::size_t>(std::max(job.messageNumber, 1)), mbox->count()) - 1;
    const TemporaryCopy copy(mbox->message(index));
    Job one = job;
    one.messageNumber = 1;
    JobResult result = showOrCorrect(MailFile(copy.path()), one, show);
    result.helps.insert(result.helps.begin(), Help::kMbox);
    result.messageIndex = static_cast<std::int32_t>(index);
    result.messageCount = static_cast<std::uint32_t>(mbox->count());
    return result;
}

}  // namespace ternview
