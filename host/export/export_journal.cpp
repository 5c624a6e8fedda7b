#include "export_journal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <set>

#include "export_names.h"
#include "job.h"
#include "messages.h"

namespace ternview {
namespace {

namespace fs = std::filesystem;

constexpr char kJournalName[] = ".ternview-export";
constexpr char kIndexStem[] = "index";
constexpr char kIndexExtension[] = ".html";
constexpr std::size_t kLongestLine = std::size_t{1} << 20;
constexpr std::uint32_t kMostAttempts = 10'000;

[[noreturn]] void failOn(const fs::path& path, const std::string& reason) {
    throw JobError(Failure::kOutput, path.string() + ": " + reason);
}

[[noreturn]] void failOn(const fs::path& path, int error) {
    failOn(path, std::strerror(error));
}

/// Links are not followed: what they point to is not the export's.
mode_t kindOf(const fs::path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & S_IFMT : 0;
}

bool isThere(const fs::path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 || errno != ENOENT;
}

/// A file that an earlier run has finished. What was cut short by a loss of power may be empty.
bool isOutput(const fs::path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
}

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

/// Without what makes no difference to the outputs.
ExportOptions normalised(ExportOptions options) {
    const bool hasPages = options.format == ExportFormat::kPdf || options.format == ExportFormat::kPng;
    options.paper = hasPages ? options.paper : "";
    options.resolution = options.format == ExportFormat::kPng ? options.resolution : 0;
    options.htmlEngine = hasPages ? options.htmlEngine : HtmlEngine::kAuto;
    return options;
}

/// As on a command line.
std::string asArguments(const ExportOptions& options) {
    std::string text = "--format " + std::string(formatName(options.format));
    if (!options.paper.empty()) {
        text += " --paper " + options.paper;
    }
    if (options.resolution != 0) {
        text += " -r " + std::to_string(options.resolution);
    }
    if (options.language != 0) {
        std::array<char, 16> id;
        std::snprintf(id.data(), id.size(), "0x%04X", options.language);
        text += std::string(" --lang ") + id.data();
    }
    if (options.htmlEngine != HtmlEngine::kAuto) {
        text += " --html-engine " + std::string(engineName(options.htmlEngine));
    }
    text += options.plainText ? " --plain-text" : "";
    return text + (options.strict ? " --strict" : "");
}

/// Makes a directory and those above it that are missing. @return the made ones, innermost last
std::vector<fs::path> makeDirectories(const fs::path& directory) {
    std::vector<fs::path> missing;
    for (fs::path path = directory; !path.empty() && !isThere(path); path = path.parent_path()) {
        missing.insert(missing.begin(), path);
        if (path == path.parent_path()) {
            break;
        }
    }
    std::error_code error;
    fs::create_directories(directory, error);
    if (!fs::is_directory(directory)) {
        failOn(directory, error ? error.message() : "this is no directory");
    }
    return missing;
}

}  // namespace

ExportJournal::ExportJournal(const fs::path& directory, const ExportOptions& options, Start start) : directory_(directory) {
    if (!directory_.has_filename()) {
        directory_ = directory_.parent_path();  // of "name/"
    }
    madeDirectories_ = makeDirectories(directory_);
    open();
    load(normalised(options), start);
}

void ExportJournal::open() {
    const fs::path path = directory_ / kJournalName;
    while (true) {
        descriptor_ = Descriptor(::open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
        if (descriptor_.get() < 0) {
            failOn(path, errno);
        }
        struct stat status {};
        if (::fstat(descriptor_.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
            failOn(path, "this is no regular file");
        }
        if (::flock(descriptor_.get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK) {
                failOn(path, errno);
            }
            throw ExportRefusal(kExitCannotShow, printableName(directory_.string()) +
                                                     ": another export into this directory is under way. Wait for its end, or "
                                                     "choose another directory with -o.");
        }
        // One that found nothing to do may have removed the file in between.
        if (::fstat(descriptor_.get(), &status) == 0 && status.st_nlink > 0) {
            return;
        }
    }
}

void ExportJournal::load(const ExportOptions& options, Start start) {
    std::array<char, 65536> chunk;
    std::string pending;
    std::uint64_t offset = 0;  // of `pending`
    for (std::uint64_t position = 0;;) {
        const ssize_t got = ::pread(descriptor_.get(), chunk.data(), chunk.size(), static_cast<off_t>(position));
        if (got < 0) {
            failOn(directory_ / kJournalName, errno);
        }
        if (got == 0) {
            break;
        }
        position += static_cast<std::uint64_t>(got);
        std::string_view rest(chunk.data(), static_cast<std::size_t>(got));
        for (std::size_t end; (end = rest.find('\n')) != std::string_view::npos; rest.remove_prefix(end + 1)) {
            pending += rest.substr(0, end);
            const std::uint64_t next = position - (rest.size() - end - 1);
            loadLine(next - offset <= kLongestLine ? pending : std::string_view(), offset);
            pending.clear();
            offset = next;
        }
        // Of a line that is too long, its beginning is enough to see that.
        pending += rest.substr(0, kLongestLine - std::min(kLongestLine, pending.size()));
    }
    const std::string head = pending.substr(0, kJournalStart.size());
    if (indexName_.empty() && !kJournalStart.starts_with(head)) {
        loadLine({}, 0);
    }
    if (!indexName_.empty() && start == Start::kAnew) {
        removeOutputs();
        offset = 0;
    }
    if (::ftruncate(descriptor_.get(), static_cast<off_t>(offset)) != 0) {
        failOn(directory_ / kJournalName, errno);
    }
    size_ = offset;
    if (offset == 0) {
        begin(options);
        return;
    }
    requireSame(options);
    std::for_each(files_.begin(), files_.end(), [](File& file) {
        settle(file);
        file.earlierEntries = file.entries.size();
    });
}

void ExportJournal::loadLine(std::string_view text, std::uint64_t offset) {
    const std::optional<JournalLine> parsed = parseLine(text);
    if (offset == 0) {
        const auto* header = parsed ? std::get_if<HeaderLine>(&*parsed) : nullptr;
        if (header == nullptr) {
            throw ExportRefusal(kExitCannotShow, printableName((directory_ / kJournalName).string()) +
                                                     ": this is no journal of an export. Remove it, or choose another directory "
                                                     "with -o.");
        }
        options_ = header->options;
        indexName_ = header->indexName;
        return;
    }
    if (!parsed) {
        return;  // what it told is not known then, and is done again
    }
    if (const auto* file = std::get_if<FileLine>(&*parsed); file != nullptr && admits(*file)) {
        admit(*file);
    } else if (const auto* message = std::get_if<MessageLine>(&*parsed); message != nullptr && message->file < files_.size()) {
        addEarlier(message->file, message->record, offset, text.size());
    } else if (const auto* takenUp = std::get_if<TakenUpLine>(&*parsed); takenUp != nullptr && takenUp->file < files_.size()) {
        files_[takenUp->file].takenUp = offset;
        files_[takenUp->file].isClosed = false;
        files_[takenUp->file].failure.clear();
    } else if (const auto* closed = std::get_if<ClosedLine>(&*parsed); closed != nullptr && closed->file < files_.size()) {
        files_[closed->file].isClosed = true;
        files_[closed->file].failure = closed->failure;
    }
}

void ExportJournal::requireSame(const ExportOptions& options) const {
    const std::string earlier = asArguments(options_);
    const std::string now = asArguments(options);
    if (earlier != now) {
        throw ExportRefusal(kExitUsage, printableName(directory_.string()) + ": this directory holds an export with " + earlier +
                                            ", and this one has " + now +
                                            ". Choose another directory with -o, or replace what is there with --restart.");
    }
}

/// Removes what the journal names, and nothing else.
void ExportJournal::removeOutputs() {
    for (std::size_t file = 0; file < files_.size(); ++file) {
        const fs::path directory = directory_ / files_[file].place.directory;
        if (kindOf(directory) != S_IFDIR) {
            continue;
        }
        for (const Entry& entry : files_[file].entries) {
            const MessageRecord record = read(entry);
            for (std::uint32_t part = 1; part <= record.parts; ++part) {
                if (::unlink(outputPath(file, record, part).c_str()) != 0) {
                    break;
                }
            }
            if (!record.thumbnail.empty()) {
                ::unlink(thumbnailPath(record).c_str());
            }
        }
        if (!files_[file].place.directory.empty()) {
            ::rmdir(directory.c_str());
        }
    }
    ::unlink(indexPath().c_str());
    ::rmdir((directory_ / kThumbnailDirectory).c_str());
    files_.clear();
    byIdentity_.clear();
    lastNumber_ = 0;
}

void ExportJournal::begin(const ExportOptions& options) {
    options_ = options;
    std::uint32_t attempt = 1;
    do {
        indexName_ = numbered(kIndexStem, attempt) + kIndexExtension;
    } while (isThere(indexPath()) && ++attempt < kMostAttempts);
    append(HeaderLine{options_, indexName_});
}

/// @return offset of the line
std::uint64_t ExportJournal::append(const JournalLine& line) {
    const std::string text = formatLine(line);
    const ssize_t written = ::write(descriptor_.get(), text.data(), text.size());
    if (written != static_cast<ssize_t>(text.size())) {
        const int error = written < 0 ? errno : ENOSPC;
        if (written > 0 && ::ftruncate(descriptor_.get(), static_cast<off_t>(size_)) != 0) {
            failOn(directory_ / kJournalName, errno);
        }
        failOn(directory_ / kJournalName, error);
    }
    const std::uint64_t offset = size_;
    size_ += text.size();
    return offset;
}

// ---- files

std::optional<std::size_t> ExportJournal::find(const FileIdentity& identity) const {
    const auto found = byIdentity_.find(identity);
    return found == byIdentity_.end() ? std::nullopt : std::optional(found->second);
}

bool ExportJournal::isChanged(const FileIdentity& identity) const {
    const auto known = byIdentity_.lower_bound({identity.path, 0, std::numeric_limits<std::int64_t>::min()});
    return known != byIdentity_.end() && known->first.path == identity.path && !byIdentity_.contains(identity);
}

/// A file's first line names it, a second one may give it its place.
bool ExportJournal::admits(const FileLine& line) const {
    const FilePlace& place = line.place;
    if (place.isStore ? place.directory == kThumbnailDirectory : place.isKnown() && place.number <= lastNumber_) {
        return false;
    }
    return line.file < files_.size() ? !files_[line.file].place.isKnown() && files_[line.file].identity == line.identity
                                     : line.file == files_.size() && !byIdentity_.contains(line.identity);
}

void ExportJournal::admit(const FileLine& line) {
    if (line.file == files_.size()) {
        files_.push_back({.identity = line.identity, .place = {}});
        byIdentity_.emplace(line.identity, line.file);
    }
    files_[line.file].place = line.place;
    lastNumber_ = std::max(lastNumber_, line.place.number);
}

bool isTooLong(const fs::path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) != 0 && errno == ENAMETOOLONG;
}

bool ExportJournal::isFreeDirectory(const std::string& name) const {
    if (isThere(directory_ / name)) {
        return false;
    }
    const std::string key = lowerCase(name);
    return key != lowerCase(indexName_) && key != kThumbnailDirectory &&
           std::none_of(files_.begin(), files_.end(),
                        [&key](const File& file) { return lowerCase(file.place.directory) == key; });
}

std::string ExportJournal::freeDirectory(const fs::path& store) const {
    std::string name = storeDirectoryName(store);
    while (isTooLong(directory_ / name) && name.size() > 1) {
        name = safeNamePart(name, name.size() / 2);
        name = name.empty() ? "_" : name;
    }
    for (std::uint32_t attempt = 1; attempt < kMostAttempts; ++attempt) {
        if (isFreeDirectory(numbered(name, attempt))) {
            return numbered(name, attempt);
        }
    }
    failOn(directory_ / name, EEXIST);
}

std::size_t ExportJournal::enter(const FileIdentity& identity, Kind kind, bool isAlone) {
    const std::optional<std::size_t> known = find(identity);
    if (known && (kind == Kind::kUnknown || place(*known).isKnown())) {
        return *known;
    }
    FileLine line{.file = known.value_or(files_.size()), .identity = identity, .place = {}};
    if (kind == Kind::kMessage) {
        line.place.number = lastNumber_ + 1;
    } else if (kind == Kind::kStore) {
        const bool isFirst = line.file == 0 && files_.size() <= 1;
        line.place.isStore = true;
        line.place.directory = isAlone && isFirst ? std::string() : freeDirectory(identity.path);
    }
    append(line);
    admit(line);
    return line.file;
}

void ExportJournal::takeUp(std::size_t file) {
    files_[file].takenUp = append(TakenUpLine{file});
    files_[file].isClosed = false;
    files_[file].failure.clear();
}

void ExportJournal::close(std::size_t file, const std::string& failure) {
    append(ClosedLine{file, failure});
    files_[file].isClosed = true;
    files_[file].failure = failure;
}

bool ExportJournal::isComplete(std::size_t file) const {
    const File& known = files_[file];
    return known.isClosed && known.failure.empty() && !known.entries.empty() &&
           std::all_of(known.entries.begin(), known.entries.end(),
                       [](const Entry& entry) { return entry.state == Entry::State::kDone; });
}

// ---- messages

void ExportJournal::add(std::size_t file, const MessageRecord& record) {
    const std::uint64_t offset = append(MessageLine{file, record});
    const std::size_t size = size_ - offset - 1;
    const auto state = record.failure.empty() ? Entry::State::kDone : Entry::State::kFailed;
    files_[file].entries.push_back({offset, static_cast<std::uint32_t>(size), record.number, state});
}

/// A line of an earlier run.
void ExportJournal::addEarlier(std::size_t file, const MessageRecord& record, std::uint64_t offset, std::size_t size) {
    auto state = Entry::State::kFailed;
    if (record.failure.empty()) {
        state = outputsExist(file, record) ? Entry::State::kDone : Entry::State::kLost;
    }
    files_[file].entries.push_back({offset, static_cast<std::uint32_t>(size), record.number, state});
}

bool ExportJournal::outputsExist(std::size_t file, const MessageRecord& record) const {
    const std::string& directory = files_[file].place.directory;
    if (!directory.empty() && kindOf(directory_ / directory) != S_IFDIR) {
        return false;
    }
    for (std::uint32_t part = 1; part <= record.parts; ++part) {
        if (!isOutput(outputPath(file, record, part))) {
            return false;
        }
    }
    return true;
}

/// Leaves the last line of each number, sorted by them, without failures that count no more.
void ExportJournal::settle(File& file) {
    std::erase_if(file.entries,
                  [&file](const Entry& entry) { return entry.state == Entry::State::kFailed && entry.offset < file.takenUp; });
    std::sort(file.entries.begin(), file.entries.end(),
              [](const Entry& a, const Entry& b) { return a.number != b.number ? a.number < b.number : a.offset > b.offset; });
    const auto end = std::unique(file.entries.begin(), file.entries.end(),
                                 [](const Entry& a, const Entry& b) { return a.number == b.number; });
    file.entries.erase(end, file.entries.end());
}

const ExportJournal::Entry* ExportJournal::findEarlier(std::size_t file, std::uint32_t number) const {
    const auto begin = files_[file].entries.begin();
    const auto end = begin + static_cast<std::ptrdiff_t>(files_[file].earlierEntries);
    const auto found =
        std::lower_bound(begin, end, number, [](const Entry& entry, std::uint32_t wanted) { return entry.number < wanted; });
    return found != end && found->number == number ? &*found : nullptr;
}

bool ExportJournal::isDone(std::size_t file, std::uint32_t number) const {
    const Entry* entry = findEarlier(file, number);
    return entry != nullptr && entry->state == Entry::State::kDone;
}

std::optional<MessageRecord> ExportJournal::earlier(std::size_t file, std::uint32_t number) const {
    const Entry* entry = findEarlier(file, number);
    return entry == nullptr ? std::nullopt : std::optional(read(*entry));
}

std::uint64_t ExportJournal::doneCount(std::size_t file) const {
    return static_cast<std::uint64_t>(std::count_if(files_[file].entries.begin(), files_[file].entries.end(),
                                                    [](const Entry& entry) { return entry.state == Entry::State::kDone; }));
}

void ExportJournal::forEach(std::size_t file, const std::function<void(const MessageRecord&)>& take) {
    settle(files_[file]);
    files_[file].earlierEntries = files_[file].entries.size();
    for (const Entry& entry : files_[file].entries) {
        if (entry.state != Entry::State::kLost) {
            take(read(entry));
        }
    }
}

MessageRecord ExportJournal::read(const Entry& entry) const {
    std::string text(entry.size, '\0');
    const ssize_t got = ::pread(descriptor_.get(), text.data(), text.size(), static_cast<off_t>(entry.offset));
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    const std::optional<JournalLine> line = parseLine(text);
    const auto* message = line ? std::get_if<MessageLine>(&*line) : nullptr;
    if (message == nullptr) {
        failOn(directory_ / kJournalName, "it was changed while the export was under way");
    }
    return message->record;
}

std::string ExportJournal::outputName(std::size_t file, const MessageRecord& record, std::uint32_t part) const {
    const std::string& directory = files_[file].place.directory;
    std::string name = directory.empty() ? record.stem : directory + "/" + record.stem;
    if (record.parts > 1) {
        name += "-" + std::to_string(part);
    }
    return name + "." + std::string(formatName(options_.format));
}

fs::path ExportJournal::outputPath(std::size_t file, const MessageRecord& record, std::uint32_t part) const {
    return directory_ / outputName(file, record, part);
}

fs::path ExportJournal::thumbnailPath(const MessageRecord& record) const {
    return directory_ / kThumbnailDirectory / record.thumbnail;
}

void ExportJournal::discardIfEmpty() {
    if (!files_.empty()) {
        return;
    }
    ::unlink((directory_ / kJournalName).c_str());
    descriptor_.close();
    for (auto made = madeDirectories_.rbegin(); made != madeDirectories_.rend(); ++made) {
        ::rmdir(made->c_str());
    }
}

}  // namespace ternview
