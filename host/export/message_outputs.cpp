#include "message_outputs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

#include "export_names.h"

namespace ternview {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLargestThumbnail = std::size_t{1} << 20;
constexpr std::uint32_t kMostPages = 100'000;
constexpr std::uint32_t kMostAttempts = 10'000;

void require(bool condition) {
    if (!condition) {
        throw JobError(Failure::kWorkerProtocol);
    }
}

/// A link instead of the directory could lead anywhere.
void ensureDirectory(const fs::path& path) {
    struct stat status {};
    if (::mkdir(path.c_str(), 0777) == 0 || (::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))) {
        return;
    }
    throw JobError(Failure::kOutput, path.string() + ": " + (errno == EEXIST ? "this is no directory" : std::strerror(errno)));
}

bool isThere(const fs::path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 || errno != ENOENT;
}

bool isRegularFile(const fs::path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

FrameKind partKind(ExportFormat format) {
    switch (format) {
        case ExportFormat::kPdf:
            return FrameKind::kPdf;
        case ExportFormat::kPng:
            return FrameKind::kPage;
        default:
            return FrameKind::kConversion;
    }
}

/// Of "3/7" that is 7; pages come in order, so the 3 must be what is expected.
std::size_t pageCount(std::string_view label, std::size_t expectedPage) {
    std::uint32_t page = 0;
    std::uint32_t count = 0;
    const char* end = label.data() + label.size();
    const auto first = std::from_chars(label.data(), end, page);
    require(first.ec == std::errc() && first.ptr != end && *first.ptr == '/');
    const auto second = std::from_chars(first.ptr + 1, end, count);
    require(second.ec == std::errc() && second.ptr == end && page == expectedPage && page <= count && count <= kMostPages);
    return count;
}

/// Whether the earlier outputs of a message were one of that name, which so can be replaced.
bool isOurs(const ExportJournal& journal, std::size_t file, const fs::path& path, const MessageRecord* earlier,
            std::uint32_t part) {
    return earlier != nullptr && part <= earlier->parts && journal.outputPath(file, *earlier, part) == path &&
           isRegularFile(path);
}

}  // namespace

MessageOutputs::MessageOutputs(const ExportJournal& journal, std::size_t file)
    : file_(file),
      format_(journal.options().format),
      directory_(journal.directory() / journal.place(file).directory),
      thumbnails_(journal.directory() / kThumbnailDirectory) {
    if (!journal.place(file).directory.empty()) {
        ensureDirectory(directory_);
    }
}

void MessageOutputs::begin(FrameKind kind, std::string_view label) {
    if (kind != FrameKind::kThumbnail) {
        beginPart(kind, label);
        return;
    }
    require(isComplete() && thumbnail_ == nullptr);
    ensureDirectory(thumbnails_);
    thumbnail_ = std::make_unique<PendingFile>(PendingFile::Nameless{thumbnails_});
    open_ = thumbnail_.get();
}

void MessageOutputs::beginPart(FrameKind kind, std::string_view label) {
    require(kind == partKind(format_));
    if (kind == FrameKind::kConversion) {
        parts_.clear();  // of a worker that ended over the small picture, and was started anew
        closedParts_ = 0;
    }
    require(!isComplete());
    const std::size_t count = kind == FrameKind::kPage ? pageCount(label, parts_.size() + 1) : 1;
    require(parts_.empty() || count == expectedParts_);
    expectedParts_ = count;
    parts_.push_back(std::make_unique<PendingFile>(PendingFile::Nameless{directory_}));
    open_ = parts_.back().get();
}

void MessageOutputs::data(std::string_view bytes) {
    if (open_ == thumbnail_.get()) {
        thumbnailSize_ += bytes.size();
        require(thumbnailSize_ <= kLargestThumbnail);
    }
    open_->write(bytes);
}

void MessageOutputs::end() {
    open_->close();
    if (open_ == thumbnail_.get()) {
        hasThumbnail_ = true;
    } else {
        ++closedParts_;
    }
    open_ = nullptr;
}

MessageOutputs::Name MessageOutputs::lookUp(const ExportJournal& journal, const MessageRecord& record,
                                            const MessageRecord* earlier) const {
    for (std::uint32_t part = 1; part <= record.parts; ++part) {
        const fs::path path = journal.outputPath(file_, record, part);
        if (isTooLong(path)) {
            return Name::kTooLong;
        }
        if (isThere(path) && !isOurs(journal, file_, path, earlier, part)) {
            return Name::kTaken;
        }
    }
    return Name::kFree;
}

/// @return false when none is short enough
bool MessageOutputs::chooseStem(const ExportJournal& journal, MessageRecord& record, const MessageRecord* earlier,
                                std::string stem) const {
    for (; !stem.empty(); stem = shortened(stem)) {
        Name name = Name::kTaken;
        for (std::uint32_t attempt = 1; attempt < kMostAttempts && name == Name::kTaken; ++attempt) {
            record.stem = numbered(stem, attempt);
            name = lookUp(journal, record, earlier);
        }
        if (name != Name::kTooLong) {
            return true;
        }
    }
    return false;
}

bool MessageOutputs::chooseNames(const ExportJournal& journal, MessageRecord& record, const MessageRecord* earlier) const {
    const FilePlace& place = journal.place(file_);
    const std::uint32_t number = place.isStore ? record.number : place.number;
    record.parts = static_cast<std::uint32_t>(parts_.size());
    if (!chooseStem(journal, record, earlier, messageStem(number, record.sentTime, record.subject))) {
        return false;
    }
    if (!hasThumbnail_) {
        return true;
    }
    std::uint32_t attempt = 1;
    do {
        record.thumbnail = thumbnailName(place.isStore ? std::optional(file_) : std::nullopt, number, attempt);
    } while (isThere(journal.thumbnailPath(record)) && (earlier == nullptr || earlier->thumbnail != record.thumbnail) &&
             ++attempt < kMostAttempts);
    return true;
}

bool MessageOutputs::commit(ExportJournal& journal, MessageRecord record) {
    const std::optional<MessageRecord> known = journal.earlier(file_, record.number);
    const MessageRecord* earlier = known ? &*known : nullptr;
    if (!chooseNames(journal, record, earlier)) {
        return false;
    }
    journal.add(file_, record);
    if (hasThumbnail_) {
        thumbnail_->commitAs(journal.thumbnailPath(record), PendingFile::Existing::kReplace);
    }
    for (std::uint32_t part = 1; part <= record.parts; ++part) {
        const fs::path path = journal.outputPath(file_, record, part);
        const bool replaces = isOurs(journal, file_, path, earlier, part);
        if (!parts_[part - 1]->commitAs(path, replaces ? PendingFile::Existing::kReplace : PendingFile::Existing::kKeep)) {
            throw JobError(Failure::kOutput, path.string() + ": a file of that name has just appeared");
        }
    }
    return true;
}

}  // namespace ternview
