// From what a command line names to mail files.
#pragma once

#include <string>
#include <vector>

#include "job.h"

namespace ternview {

struct MailFiles {
    struct Problem {
        std::string path;
        JobResult result;  // why nothing of it is among the files
    };
    std::vector<std::string> files;  // in whatever bytes the file system uses
    std::vector<Problem> problems;
};

/**
 * Takes every argument that is no directory as it stands, whether there is such a file or not. A directory is searched to its
 * depths in the order of names: files whose names end in .pst, .msg or .eml, and the messages of a Maildir, which are those in
 * its directories cur and new. Links in a directory are not followed.
 */
MailFiles findMailFiles(const std::vector<std::string>& arguments);

}  // namespace ternview
