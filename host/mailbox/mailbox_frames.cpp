#include "mailbox_frames.h"

#include <cstring>
#include <limits>
#include <type_traits>

#include <ternkit/batch.h>

#include "output_files.h"

namespace ternview {
namespace {

class Packer {
public:
    template <typename Number>
    Packer& number(Number value) {
        static_assert(std::is_arithmetic_v<Number> || std::is_enum_v<Number>);
        const std::size_t at = payload_.size();
        payload_.resize(at + sizeof(value));
        std::memcpy(payload_.data() + at, &value, sizeof(value));
        return *this;
    }

    Packer& text(std::string_view value) {
        number(static_cast<std::uint32_t>(value.size()));
        payload_ += value;
        return *this;
    }

    std::string take() { return std::move(payload_); }

private:
    std::string payload_;
};

/// Reads past the end give zeros and empty texts, and make the whole invalid.
class Unpacker {
public:
    explicit Unpacker(std::string_view payload) : rest_(payload) {}

    template <typename Number>
    Unpacker& number(Number& value) {
        const std::string_view bytes = take(sizeof(value));
        if (!bytes.empty()) {
            std::memcpy(&value, bytes.data(), sizeof(value));
        }
        return *this;
    }

    Unpacker& text(std::string& value) {
        std::uint32_t size = 0;
        number(size);
        isValid_ = isValid_ && size <= kLongestText;
        value = take(size);
        return *this;
    }

    Unpacker& failure(Failure& value) {
        std::int32_t number_ = 0;
        number(number_);
        isValid_ = isValid_ && number_ >= 0 && number_ <= static_cast<std::int32_t>(Failure::kLast);
        value = isValid_ ? static_cast<Failure>(number_) : Failure::kNone;
        return *this;
    }

    bool isValid() const { return isValid_; }
    bool isComplete() const { return isValid_ && rest_.empty(); }

private:
    std::string_view take(std::size_t size) {
        if (!isValid_ || size > rest_.size()) {
            isValid_ = false;
            return {};
        }
        const std::string_view bytes = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return bytes;
    }

    std::string_view rest_;
    bool isValid_ = true;
};

bool unpackFiles(Unpacker& in, std::vector<TempFile>& files) {
    std::uint32_t count = 0;
    in.number(count);
    for (std::uint32_t i = 0; in.isValid() && i < count; ++i) {
        TempFile& file = files.emplace_back();
        in.text(file.name).number(file.size);
        if (!isPlainName(file.name) || files.size() > kMostDocumentFiles) {
            return false;
        }
    }
    return in.isValid();
}

constexpr std::uint32_t bitOf(Help help) {
    return std::uint32_t{1} << static_cast<unsigned>(help);
}

void unpackHelps(Unpacker& in, std::vector<Help>& helps) {
    std::uint32_t bits = 0;
    in.number(bits);
    for (int help = 0; help <= static_cast<int>(Help::kLast); ++help) {
        if ((bits & bitOf(static_cast<Help>(help))) != 0) {
            helps.push_back(static_cast<Help>(help));
        }
    }
}

bool isPlausible(const MessageSummary& message) {
    const std::uint64_t last = std::uint64_t{message.run} + static_cast<std::uint32_t>(message.number) - 1;
    return message.number >= 1 && message.run >= 1 && last <= std::uint64_t{std::numeric_limits<std::int32_t>::max()};
}

constexpr std::int32_t asNumber(Failure failure) {
    return static_cast<std::int32_t>(failure);
}

}  // namespace

std::string_view cutText(std::string_view text) {
    if (text.size() <= kLongestText) {
        return text;
    }
    std::size_t end = kLongestText;
    const auto isContinuation = [text](std::size_t at) { return (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80; };
    while (end > kLongestText - 3 && isContinuation(end)) {
        --end;
    }
    return text.substr(0, end);
}

std::string packMessage(const MessageSummary& message) {
    Packer out;
    out.number(message.number).number(message.run).number(message.count);
    out.number(message.sourceFormat).number(message.documentFormat).number(message.status).number(message.resultStatus);
    out.number(asNumber(message.failure)).text(message.detail);
    out.text(message.subject).text(message.senderName).text(message.senderAddress);
    out.text(message.displayTo).text(message.displayCc).text(message.displayBcc).text(message.date);
    out.number(message.sentTime.value_or(ternkit::kBatchNoTime)).number(message.bodies).number(message.size);
    std::uint32_t helps = 0;
    for (const Help help : message.helps) {
        helps |= bitOf(help);
    }
    out.number(helps);
    out.number(static_cast<std::uint32_t>(message.files.size()));
    for (const TempFile& file : message.files) {
        out.text(file.name).number(file.size);
    }
    return out.take();
}

std::optional<MessageSummary> unpackMessage(std::string_view payload) {
    MessageSummary message;
    std::int64_t sentTime = ternkit::kBatchNoTime;
    Unpacker in(payload);
    in.number(message.number).number(message.run).number(message.count);
    in.number(message.sourceFormat).number(message.documentFormat).number(message.status).number(message.resultStatus);
    in.failure(message.failure).text(message.detail);
    in.text(message.subject).text(message.senderName).text(message.senderAddress);
    in.text(message.displayTo).text(message.displayCc).text(message.displayBcc).text(message.date);
    in.number(sentTime).number(message.bodies).number(message.size);
    unpackHelps(in, message.helps);
    if (!unpackFiles(in, message.files) || !in.isComplete() || !isPlausible(message)) {
        return std::nullopt;
    }
    if (sentTime != ternkit::kBatchNoTime) {
        message.sentTime = sentTime;
    }
    return message;
}

std::string packFileEnd(const JobResult& result) {
    Packer out;
    out.number(result.status).number(result.resultStatus).number(result.sourceFormat).number(result.messageCount);
    out.number(asNumber(result.failure)).text(cutText(result.detail));
    return out.take();
}

std::optional<JobResult> unpackFileEnd(std::string_view payload) {
    JobResult result;
    Unpacker in(payload);
    in.number(result.status).number(result.resultStatus).number(result.sourceFormat).number(result.messageCount);
    in.failure(result.failure).text(result.detail);
    return in.isComplete() ? std::optional(result) : std::nullopt;
}

}  // namespace ternview
