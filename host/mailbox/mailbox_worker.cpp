#include "mailbox_worker.h"

#include <unistd.h>

#include <cstdlib>
#include <exception>

#include <ternkit/ternbase.h>

#include "batch_module.h"
#include "confinement.h"
#include "descriptor.h"
#include "file_visit.h"
#include "message_sender.h"

namespace ternview {
namespace {

constexpr std::uint32_t kLoadModeMemoryOnly = 3;

void readFiles(MessageSender& sender, const std::vector<std::string>& files, std::size_t firstFile) {
    const BatchModule module;
    const MailboxOptions& options = sender.options();
    TbHostSetUiLanguage(options.uiLanguage);
    const bool staysInMemory = !options.documents || options.route == DocumentRoute::kMemory;
    TbHostSetLoadMode(staysInMemory ? kLoadModeMemoryOnly : 0);
    for (std::size_t i = firstFile; i < files.size(); ++i) {
        const JobResult result = visitMailFile(module, sender, files[i], i);
        sender.sendFileEnd(result);
        if (result.failure == Failure::kOutOfMemory) {
            return;  // a fresh process goes on
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
    confine({environment.privateDirectory, environment.parent});
    try {
        MessageSender sender(environment.descriptor, options, environment.granted, environment.firstMessageDirectory);
        try {
            readFiles(sender, files, environment.firstFile);
        } catch (const JobError& error) {
            reportMissing(sender, error, files.size() - environment.firstFile);
        }
    } catch (const std::exception&) {
        ::_exit(EXIT_FAILURE);
    }
    ::_exit(EXIT_SUCCESS);
}

}  // namespace ternview
