// Where a job's outputs go: files, which appear only when the whole job has succeeded, or standard output.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "job.h"
#include "stale_files.h"
#include "worker_process.h"

namespace ternview {

/// A file in the making beside its target. It takes the target's name with `commit` and vanishes without. A target that exists
/// and is no regular file, such as /dev/null or a pipe, is written to directly. A pipe may have nobody yet who reads it, and
/// takes what it likes when it likes: a signal that is held back is answered meanwhile.
class PendingFile {
public:
    /// A directory in which a file is made whose name is given in the end.
    struct Nameless {
        std::filesystem::path directory;
    };
    enum class Existing { kKeep, kReplace };

    /// @throws JobError with the reason, and Interrupted
    explicit PendingFile(const std::filesystem::path& target);
    explicit PendingFile(const Nameless& place);
    ~PendingFile();
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    /// @throws JobError, and Interrupted
    void write(std::string_view bytes);
    void close();
    void commit();
    /// Gives a nameless file its name.
    /// @return false when that is taken already, and what has it is to be kept
    bool commitAs(const std::filesystem::path& target, Existing existing);

private:
    void makeTemporary(const std::filesystem::path& directory);
    [[noreturn]] void fail(int error) const;

    std::filesystem::path target_;
    std::shared_ptr<const OutputDirectory> inUse_;
    std::string temporary_;  // empty when the target is written to directly
    int descriptor_ = -1;
};

struct OutputPlan {
    std::optional<std::filesystem::path> out;  // file, or the directory of an HTML document's files; none: standard output
    std::string defaultStem;                   // of page files when there is no `out`
};

/// Receives what a worker sends and puts it where the plan says.
class OutputFiles final : public OutputReceiver {
public:
    explicit OutputFiles(OutputPlan plan) : plan_(std::move(plan)) {}

    void begin(FrameKind kind, std::string_view label) override;
    void data(std::string_view bytes) override;
    void end() override;

    /// Lets the files appear under their names; without it none of them does.
    void commit();
    /// Removes what did not appear.
    void discard() { files_.clear(); }
    const std::vector<std::filesystem::path>& written() const { return written_; }

private:
    /// @param label page number and number of pages, such as "3/7"
    std::filesystem::path pagePath(std::string_view label) const;
    std::filesystem::path tempFilePath(std::string_view name) const;
    void open(const std::filesystem::path& path);

    OutputPlan plan_;
    std::vector<std::unique_ptr<PendingFile>> files_;
    std::vector<std::filesystem::path> written_;
    std::set<std::filesystem::path> taken_;  // the same
    bool toStandardOutput_ = false;
};

/// Whether a name that came out of a mail is a name and nothing else, so that a file of that name lies where it is put.
bool isPlainName(std::string_view name);

/// Writes everything, as standard output is unbuffered here.
/// @throws JobError, and Interrupted when nobody reads it any more, or a signal comes while nobody does
void writeStandardOutput(std::string_view bytes);

}  // namespace ternview
