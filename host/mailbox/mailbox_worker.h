// The reader's process: visits the messages of one file after the other and sends what they are.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "mailbox_reader.h"

namespace ternview {

struct MailboxWorkerEnvironment {
    int descriptor;                // where frames go; grants come from there, each a std::uint32_t
    std::string privateDirectory;  // for temporary files; the program makes and removes it
    pid_t parent;
    std::size_t firstFile;                // of the files, those from this one on
    std::uint32_t granted;                // messages that the process may send before the first grant
    std::uint64_t firstMessageDirectory;  // number of the first directory that it makes
};

/// Where the files of a document lie. Directories are numbered as their messages are sent, which both ends count.
std::filesystem::path messageDirectory(const MailboxOptions& options, std::uint64_t number);

/// Body of the process, right behind the fork: takes the process's freedoms away, reads the files, and ends the process. It ends
/// early, without a fault, behind some hundred files, behind one for which memory ran out, or before one that was replaced.
[[noreturn]] void mailboxWorkerMain(const std::vector<std::string>& files, const MailboxOptions& options,
                                    const MailboxWorkerEnvironment& environment);

}  // namespace ternview
