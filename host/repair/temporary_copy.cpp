#include "repair/temporary_copy.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "descriptor.h"
#include "job.h"

namespace ternview {

TemporaryCopy::TemporaryCopy(std::string_view bytes) {
    const char* directory = std::getenv("XDG_RUNTIME_DIR");
    path_ = std::string(directory != nullptr ? directory : "/tmp") + "/message-XXXXXX";
    const Descriptor file(::mkostemp(path_.data(), O_CLOEXEC));
    int error = file.get() < 0 ? errno : 0;
    while (error == 0 && !bytes.empty()) {
        const ssize_t written = ::write(file.get(), bytes.data(), bytes.size());
        if (written >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            error = errno;
        }
    }
    if (error != 0) {
        if (file.get() >= 0) {
            ::unlink(path_.c_str());
        }
        throw JobError(Failure::kTemporaryFile, std::strerror(error));
    }
}

std::unique_ptr<TemporaryCopy> TemporaryCopy::ifThereIsRoom(std::string_view bytes) {
    try {
        return std::make_unique<TemporaryCopy>(bytes);
    } catch (const JobError&) {
        return nullptr;
    }
}

TemporaryCopy::~TemporaryCopy() {
    ::unlink(path_.c_str());
}

}  // namespace ternview
