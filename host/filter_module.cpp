#include "filter_module.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "module_search.h"
#include "utf.h"

namespace ternview {
namespace {

/// Opening a FIFO for reading would wait for a writer, so the kind is looked at on a descriptor that does not wait.
int openRegularFile(const std::string& path, std::uint64_t& size) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0) {
        const bool isMissing = errno == ENOENT || errno == ENOTDIR;
        throw JobError(isMissing ? Failure::kNoSuchFile : Failure::kUnreadable, std::strerror(errno));
    }
    struct stat status {};
    if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
        size = static_cast<std::uint64_t>(status.st_size);
        return descriptor;
    }
    ::close(descriptor);
    throw JobError(S_ISDIR(status.st_mode) ? Failure::kDirectory : Failure::kNoRegularFile);
}

void initialise(ternkit::HostFileInfo& info, ternkit::HostLoadOptions& options) {
    info.structSize = ternkit::kHostFileInfoSize;
    options.structSize = ternkit::kHostLoadOptionsSize;
    options.pageNumber = 1;
}

}  // namespace

FilterModule::FilterModule() {
    std::string tried;
    for (const std::string& candidate : libraryCandidates(kFilterLibrary)) {
        void* library = ::dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            tried += (tried.empty() ? "" : "; ") + std::string(::dlerror());
            continue;
        }
        const auto load = reinterpret_cast<ternkit::TernLoad>(::dlsym(library, ternkit::kTernLoadName));
        module_.structSize = sizeof(module_);
        if (load != nullptr && load(&module_) == ternkit::kOk) {
            return;
        }
        tried += (tried.empty() ? "" : "; ") + candidate + ": no filter";
    }
    throw JobError(Failure::kFilterMissing, tried);
}

MailFile::MailFile(const std::string& path) {
    descriptor_ = openRegularFile(path, size_);
    name_ = utf16FromUtf8(isValidUtf8(path) ? path : "/proc/self/fd/" + std::to_string(descriptor_));
    handle_ = TbFileOpen(name_.c_str(), 0, 256);
    if (handle_ == ternkit::kInvalidHandle) {
        ::close(descriptor_);
        throw JobError(Failure::kUnreadable, "it cannot be opened a second time");
    }
}

MailFile::~MailFile() {
    TbFileClose(handle_);
    ::close(descriptor_);
}

std::string MailFile::beginning(std::size_t count) const {
    std::string bytes(count, '\0');
    const ssize_t got = ::pread(descriptor_, bytes.data(), bytes.size(), 0);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
}

InfoCallRecords::InfoCallRecords(const MailFile& file, const Job& job) {
    initialise(fileInfo, options);
    request.fileName = file.name().c_str();
    request.fileHandle = file.handle();
    request.fileInfo = &fileInfo;
    request.options = &options;
    request.messageNumber = job.messageNumber;
    request.plainTextOnly = job.plainTextOnly ? 1 : 0;
}

LoadCallRecords::LoadCallRecords(const MailFile& file, const Job& job) {
    initialise(fileInfo, options);
    request.fileName = file.name().c_str();
    request.fileInfo = &fileInfo;
    request.options = &options;
    request.resultStatus = ternkit::kOk;
    request.messageNumber = job.messageNumber;
    request.plainTextOnly = job.plainTextOnly ? 1 : 0;
}

}  // namespace ternview
