#include "mail_files.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <string_view>
#include <system_error>

namespace ternview {
namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 3> kMailExtensions{".pst", ".msg", ".eml"};

void addProblem(MailFiles& found, const fs::path& path, Failure failure, const std::string& detail = {}) {
    MailFiles::Problem& problem = found.problems.emplace_back();
    problem.path = path.string();
    problem.result.failure = failure;
    problem.result.detail = detail;
}

bool hasMailExtension(const fs::path& name) {
    std::string extension = name.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return std::find(kMailExtensions.begin(), kMailExtensions.end(), extension) != kMailExtensions.end();
}

struct Entry {
    fs::path name;
    fs::file_type type;  // of the entry itself: a link is a link
};

/// The entries in the order of their names. What cannot be read is told of.
std::vector<Entry> readDirectory(const fs::path& directory, MailFiles& found) {
    std::vector<Entry> entries;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
        std::error_code unknown;
        entries.push_back({entry->path().filename(), entry->symlink_status(unknown).type()});
    }
    if (error) {
        addProblem(found, directory, Failure::kUnreadableDirectory, error.message());
    }
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.name.native() < b.name.native(); });
    return entries;
}

bool hasDirectory(const std::vector<Entry>& entries, std::string_view name) {
    return std::any_of(entries.begin(), entries.end(),
                       [name](const Entry& entry) { return entry.type == fs::file_type::directory && entry.name == name; });
}

enum class Place { kDirectory, kMaildirMessages };

void search(const fs::path& directory, Place place, MailFiles& found) {
    const std::vector<Entry> entries = readDirectory(directory, found);
    const bool isMaildir = hasDirectory(entries, "cur") && hasDirectory(entries, "new");
    for (const Entry& entry : entries) {
        const fs::path path = directory / entry.name;
        if (entry.type == fs::file_type::regular) {
            const bool isMaildirMessage = place == Place::kMaildirMessages && entry.name.native().front() != '.';
            if (isMaildirMessage || hasMailExtension(entry.name)) {
                found.files.push_back(path.string());
            }
        } else if (entry.type == fs::file_type::directory) {
            const bool holdsMessages = isMaildir && (entry.name == "cur" || entry.name == "new");
            const bool holdsHalfMessages = isMaildir && entry.name == "tmp";
            if (!holdsHalfMessages) {
                search(path, holdsMessages ? Place::kMaildirMessages : Place::kDirectory, found);
            }
        }
    }
}

void searchArgument(const fs::path& directory, MailFiles& found) {
    const std::size_t before = found.files.size() + found.problems.size();
    search(directory, Place::kDirectory, found);
    if (found.files.size() + found.problems.size() == before) {
        addProblem(found, directory, Failure::kNoMailInDirectory);
    }
}

}  // namespace

MailFiles findMailFiles(const std::vector<std::string>& arguments) {
    MailFiles found;
    for (const std::string& argument : arguments) {
        std::error_code ignored;
        if (fs::is_directory(argument, ignored)) {
            searchArgument(argument, found);
        } else {
            found.files.push_back(argument);
        }
    }
    return found;
}

}  // namespace ternview
