// ternview export: every message of many files becomes files in a directory, and a page lists them.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "export_options.h"
#include "loaders/laid_out_document.h"

namespace ternview {

struct ExportRequest {
    std::vector<std::string> files;  // and directories, in whatever bytes the file system uses
    std::filesystem::path directory;
    ExportOptions options;
    PageSetup paper;
    std::size_t workers = 0;             // 0: as many as there are processors
    std::chrono::seconds timeLimit{60};  // for one message
    bool pictures = true;                // of first pages, for the index
    bool restart = false;
    bool quiet = false;
    bool json = false;
};

/**
 * Exports, and says what there is to say.
 *
 * @return exit code
 * @throws Interrupted when a signal asked the program to end; what is done by then stays, and is listed
 */
int runExport(const ExportRequest& request);

}  // namespace ternview
