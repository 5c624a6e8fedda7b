#include "document_files.h"

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>

#include <ternkit/formats.h>
#include <ternkit/ternbase.h>

#include "mailbox_frames.h"
#include "output_files.h"

namespace ternview {
namespace {

namespace fs = std::filesystem;

/// Name of a document that came in memory.
const char* documentName(std::uint32_t format) {
    switch (format) {
        case ternkit::kFormatHtml:
            return "document.html";
        case ternkit::kFormatRtf:
            return "document.rtf";
        default:
            return "document.txt";
    }
}

/// A directory in the making, which goes with what is in it unless it is kept.
class NewDirectory {
public:
    explicit NewDirectory(const fs::path& path) : path_(path) {
        if (::mkdir(path_.c_str(), 0700) != 0) {
            throw JobError(Failure::kOutput, path_.string() + ": " + std::strerror(errno));
        }
    }
    ~NewDirectory() {
        if (!isKept_) {
            std::error_code ignored;
            fs::remove_all(path_, ignored);
        }
    }
    NewDirectory(const NewDirectory&) = delete;
    NewDirectory& operator=(const NewDirectory&) = delete;

    TempFile moveIn(const fs::path& file) const {
        const fs::path target = path_ / file.filename();
        std::error_code error;
        fs::rename(file, target, error);
        if (error == std::errc::cross_device_link) {
            fs::copy_file(file, target, error);
        }
        const std::uintmax_t size = error ? 0 : fs::file_size(target, error);
        if (error || !isPlainName(target.filename().native())) {
            throw JobError(Failure::kOutput, target.string() + ": " + error.message());
        }
        return {target.filename().string(), size};
    }

    TempFile write(const char* name, std::string_view bytes) const {
        std::ofstream file(path_ / name, std::ios::binary);
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        file.close();
        if (!file) {
            throw JobError(Failure::kOutput, (path_ / name).string() + ": " + std::strerror(errno));
        }
        return {name, bytes.size()};
    }

    void keep() { isKept_ = true; }

private:
    fs::path path_;
    bool isKept_ = false;
};

}  // namespace

std::vector<TempFile> placeDocument(const ternkit::BatchMessage& message, const fs::path& directory) {
    NewDirectory place(directory);
    std::vector<TempFile> files;
    if (message.htmlPath == nullptr) {
        files.push_back(place.write(documentName(message.documentFormat), {message.document, message.documentSize}));
    } else {
        std::array<char, PATH_MAX> html;
        if (TbHostNativePath(message.htmlPath, html.data(), html.size()) == 0 || message.tempFileCount >= kMostDocumentFiles) {
            throw JobError(Failure::kOutput, "the document has too many files, or too long a name");
        }
        files.push_back(place.moveIn(html.data()));
        for (std::uint64_t i = 0; i < message.tempFileCount; ++i) {
            files.push_back(place.moveIn(message.tempFiles[i]));
        }
    }
    place.keep();
    return files;
}

}  // namespace ternview
