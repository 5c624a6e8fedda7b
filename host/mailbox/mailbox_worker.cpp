#include "mailbox_worker.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <system_error>

#include <ternkit/ternbase.h>

#include "batch_module.h"
#include "confinement.h"
#include "descriptor.h"
#include "file_visit.h"
#include "message_sender.h"

namespace ternview {
namespace {

constexpr std::uint32_t kLoadModeMemoryOnly = 3;
// The files that a process reads are named to the kernel beforehand, and kept open.
constexpr std::size_t kFilesPerProcess = 256;

/// Whether it can be read, but not by this process: another file has taken its place since the wall was raised.
bool isWalledOff(const std::string& file) {
    std::error_code error;
    return std::filesystem::is_regular_file(file, error) && ::access(file.c_str(), R_OK) == 0 &&
           Descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC)).get() < 0 && errno == EACCES;
}

void readFiles(MessageSender& sender, const std::vector<std::string>& files, std::size_t firstFile, std::size_t end) {
    const BatchModule module;
    const MailboxOptions& options = sender.options();
    TbHostSetUiLanguage(options.uiLanguage);
    const bool staysInMemory = !options.documents || options.route == DocumentRoute::kMemory;
    TbHostSetLoadMode(staysInMemory ? kLoadModeMemoryOnly : 0);
    for (std::size_t i = firstFile; i < end; ++i) {
        if (i > firstFile && isWalledOff(files[i])) {
            return;  // a fresh process goes on
        }
        const JobResult result = visitMailFile(module, sender, files[i], i);
        sender.sendFileEnd(result);
        if (result.failure == Failure::kOutOfMemory) {
            return;
        }
    }
}

/// No file can be read without the library.
void reportMissing(MessageSender& sender, const JobError& error, std::size_t files) {
    JobResult result;
    result.failure = error.failure();
    result.detail = error.what();
    for (; files > 0; --files) {
        sender.sendFileEnd(result);
    }
}

}  // namespace

std::filesystem::path messageDirectory(const MailboxOptions& options, std::uint64_t number) {
    return options.documentDirectory / ("message-" + std::to_string(number));
}

void mailboxWorkerMain(const std::vector<std::string>& files, const MailboxOptions& options,
                       const MailboxWorkerEnvironment& environment) {
    closeAllBut({environment.descriptor});
    const std::size_t end = std::min(files.size(), environment.firstFile + kFilesPerProcess);
    Confinement confinement{environment.privateDirectory, environment.parent};
    confinement.readable.assign(files.begin() + static_cast<std::ptrdiff_t>(environment.firstFile),
                                files.begin() + static_cast<std::ptrdiff_t>(end));
    if (options.documents) {
        confinement.changeable.push_back(options.documentDirectory);
    }
    confine(confinement);
    try {
        MessageSender sender(environment.descriptor, options, environment.granted, environment.firstMessageDirectory);
        try {
            readFiles(sender, files, environment.firstFile, end);
        } catch (const JobError& error) {
            reportMissing(sender, error, files.size() - environment.firstFile);
        }
    } catch (const std::exception&) {
        ::_exit(EXIT_FAILURE);
    }
    ::_exit(EXIT_SUCCESS);
}

}  // namespace ternview
