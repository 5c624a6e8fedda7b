#include "repair/helping_hands.h"

#include <algorithm>
#include <optional>

#include "repair/canonical_message.h"
#include "repair/mbox.h"
#include "repair/temporary_copy.h"

namespace ternview {
namespace {

constexpr std::uint64_t kLargestMessage = std::uint64_t{512} << 20;

bool isInternetMessage(const MailFile& file) {
    const std::string head = file.beginning(8);
    return !head.starts_with("!BDN") && !head.starts_with("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1");
}

bool isShown(const JobResult& result) {
    return result.status >= ternkit::kOk && result.failure == Failure::kNone;
}

JobResult showOrCorrect(const MailFile& file, const Job& job, const ShowMessage& show) {
    JobResult result = show(file, job);
    if (!isRefused(result)) {
        return result;
    }
    JobResult again;
    if (const std::optional<CorrectedCopy> corrected = correctedCopy(file, result)) {
        const TemporaryCopy copy(corrected->bytes);
        again = show(MailFile(copy.path()), job);
        again.helps.push_back(corrected->help);
    } else if (!isInternetMessage(file) && !job.plainTextOnly) {
        Job plain = job;
        plain.plainTextOnly = true;
        again = show(file, plain);
        again.helps.push_back(Help::kPlainText);
    }
    return isShown(again) ? again : result;
}

}  // namespace

bool isRefused(const JobResult& result) {
    return result.status < ternkit::kOk && result.status != ternkit::kLoaderFailed && result.documentFormat == 0;
}

std::optional<CorrectedCopy> correctedCopy(const MailFile& file, const JobResult& result) {
    const bool isNoMail =
        result.failure == Failure::kNoMail || result.failure == Failure::kEmptyFile || result.failure == Failure::kTooShort;
    if (!isRefused(result) || isNoMail || !isInternetMessage(file) || file.size() > kLargestMessage) {
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
