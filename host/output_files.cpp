#include "output_files.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>

#include "held_signals.h"

namespace ternview {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPageMark = "%d";
constexpr std::size_t kLongestName = 255;
constexpr int kMillisecondsBetweenLooks = 50;

/// Signals are held back, and so would not interrupt a write for which somebody else has no use.
void waitUntilTaken(int descriptor) {
    pollfd output{descriptor, POLLOUT, 0};
    if (::poll(&output, 1, 0) != 0) {
        return;
    }
    const HeldSignals signals;
    std::array<pollfd, 2> watched{output, pollfd{signals.descriptor(), POLLIN, 0}};
    while (::poll(watched.data(), watched.size(), -1) < 0 && errno == EINTR) {
    }
    signals.check();
}

/// @return 0, or the error number
int writeAll(int descriptor, std::string_view bytes) {
    struct stat status {};
    const bool isFile = ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    // A pipe that is ready takes that much without waiting.
    const std::size_t most = isFile ? bytes.size() : PIPE_BUF;
    while (!bytes.empty()) {
        waitUntilTaken(descriptor);
        const ssize_t written = ::write(descriptor, bytes.data(), std::min(bytes.size(), most));
        if (written < 0 && errno != EINTR && errno != EAGAIN) {
            return errno;
        }
        bytes.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
    return 0;
}

[[noreturn]] void failOn(const fs::path& path, const std::string& reason) {
    throw JobError(Failure::kOutput, path.string() + ": " + reason);
}

bool isNumber(std::string_view text) {
    return !text.empty() && text.size() < 10 &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

/// A pipe is opened when somebody reads it; until then only signals are waited for.
int openSpecialFile(const fs::path& path, bool isPipe) {
    while (true) {
        const int descriptor = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
        if (descriptor >= 0 || errno != ENXIO || !isPipe) {
            return descriptor;
        }
        const HeldSignals signals;
        pollfd watched{signals.descriptor(), POLLIN, 0};
        ::poll(&watched, 1, kMillisecondsBetweenLooks);
        signals.check();
    }
}

mode_t creationMask() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}

}  // namespace

PendingFile::PendingFile(const fs::path& target) : target_(target) {
    std::error_code error;
    const fs::file_status status = fs::status(target, error);
    if (fs::is_directory(status)) {
        failOn(target_, "this is a directory");
    }
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        descriptor_ = openSpecialFile(target_, fs::is_fifo(status));
    } else {
        if (fs::exists(status)) {
            target_ = fs::canonical(target, error);  // a link stays, and what it points to is replaced
        }
        makeTemporary(target_.has_parent_path() ? target_.parent_path() : fs::path("."));
    }
    if (descriptor_ < 0) {
        fail(errno);
    }
}

PendingFile::PendingFile(const Nameless& place) : target_(place.directory) {
    makeTemporary(place.directory);
}

void PendingFile::makeTemporary(const fs::path& directory) {
    inUse_ = OutputDirectory::use(directory);
    temporary_ = (directory / kPendingFileName).string();
    descriptor_ = ::mkostemp(temporary_.data(), O_CLOEXEC);
    if (descriptor_ < 0) {
        const int reason = errno;
        temporary_.clear();
        fail(reason);
    }
}

PendingFile::~PendingFile() {
    if (descriptor_ >= 0) {
        ::close(descriptor_);
    }
    if (!temporary_.empty()) {
        ::unlink(temporary_.c_str());
    }
}

void PendingFile::write(std::string_view bytes) {
    if (const int error = writeAll(descriptor_, bytes); error != 0) {
        fail(error);
    }
}

void PendingFile::close() {
    if (!temporary_.empty()) {
        ::fchmod(descriptor_, static_cast<mode_t>(0666) & ~creationMask());
    }
    if (::close(std::exchange(descriptor_, -1)) != 0) {
        fail(errno);
    }
}

void PendingFile::commit() {
    if (temporary_.empty()) {
        return;
    }
    if (::rename(temporary_.c_str(), target_.c_str()) != 0) {
        fail(errno);
    }
    temporary_.clear();
}

bool PendingFile::commitAs(const fs::path& target, Existing existing) {
    target_ = target;
    if (existing == Existing::kReplace) {
        commit();
        return true;
    }
    int error = ::renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, target_.c_str(), RENAME_NOREPLACE) == 0 ? 0 : errno;
    if (error == EINVAL || error == ENOSYS) {  // not every file system can do that
        struct stat status {};
        error = ::lstat(target_.c_str(), &status) == 0 ? EEXIST : 0;
        if (error == 0 && ::rename(temporary_.c_str(), target_.c_str()) != 0) {
            error = errno;
        }
    }
    if (error == EEXIST) {
        return false;
    }
    if (error != 0) {
        fail(error);
    }
    temporary_.clear();
    return true;
}

void PendingFile::fail(int error) const {
    failOn(target_, std::strerror(error));
}

fs::path OutputFiles::pagePath(std::string_view label) const {
    const std::size_t slash = label.find('/');
    const std::string_view page = label.substr(0, slash);
    const std::string_view count = slash == std::string_view::npos ? std::string_view() : label.substr(slash + 1);
    if (!isNumber(page) || !isNumber(count)) {
        throw JobError(Failure::kWorkerProtocol);
    }
    if (!plan_.out) {
        return plan_.defaultStem + "-" + std::string(page) + ".png";
    }
    const fs::path& out = *plan_.out;
    std::string name = out.filename().string();
    if (const std::size_t mark = name.find(kPageMark); mark != std::string::npos) {
        name.replace(mark, kPageMark.size(), page);
    } else if (count != "1") {
        name = out.stem().string() + "-" + std::string(page) + out.extension().string();
    }
    return out.parent_path() / name;
}

fs::path OutputFiles::tempFilePath(std::string_view name) const {
    if (!isPlainName(name)) {
        throw JobError(Failure::kWorkerProtocol);
    }
    if (!plan_.out) {
        throw JobError(Failure::kNeedsDirectory);
    }
    std::error_code error;
    fs::create_directory(*plan_.out, error);
    if (!fs::is_directory(*plan_.out)) {
        failOn(*plan_.out, error ? error.message() : "this is no directory, and the document's files need one");
    }
    return *plan_.out / name;
}

void OutputFiles::open(const fs::path& path) {
    if (!taken_.insert(path).second) {
        throw JobError(Failure::kWorkerProtocol);
    }
    files_.push_back(std::make_unique<PendingFile>(path));
    written_.push_back(path);
}

void OutputFiles::begin(FrameKind kind, std::string_view label) {
    if (kind == FrameKind::kPage) {
        open(pagePath(label));
    } else if (kind == FrameKind::kTempFile) {
        open(tempFilePath(label));
    } else if (plan_.out) {
        open(*plan_.out);
    } else {
        toStandardOutput_ = true;
    }
}

void OutputFiles::data(std::string_view bytes) {
    if (toStandardOutput_) {
        writeStandardOutput(bytes);
    } else {
        files_.back()->write(bytes);
    }
}

void OutputFiles::end() {
    if (!toStandardOutput_) {
        files_.back()->close();
    }
}

void OutputFiles::commit() {
    for (const auto& file : files_) {
        file->commit();
    }
}

bool isPlainName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.size() <= kLongestName &&
           name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

void writeStandardOutput(std::string_view bytes) {
    const int error = writeAll(STDOUT_FILENO, bytes);
    if (error == EPIPE) {
        throw Interrupted{SIGPIPE};
    }
    if (error != 0) {
        throw JobError(Failure::kOutput, std::string("standard output: ") + std::strerror(error));
    }
}

}  // namespace ternview
