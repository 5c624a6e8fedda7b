// A browser as a service: one process of it prints the HTML documents of all jobs. Starting it takes about a quarter of a second,
// a document some fifty milliseconds.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "loaders/laid_out_document.h"
#include "service/service_process.h"

namespace ternview {

/// The browser looked at the document and did not print it.
class BrowserRefusal : public LoadError {
public:
    using LoadError::LoadError;
};

/// The program of the browser: what TERNVIEW_BROWSER names, else where Debian's packages put it; nothing when it is not there.
std::optional<std::filesystem::path> installedBrowser();

/**
 * Lets the browser print a page.
 *
 * @param html of any origin: nothing in it is run or fetched
 * @return the PDF
 * @throws BrowserRefusal, JobError when the browser is missing, cannot be confined, or the time is over
 */
std::string printInBrowser(std::string_view html, const PageSetup& setup, const ServiceAccess& access);

/// What the loaders of this process use.
void useBrowser(const ServiceAccess& access);
const ServiceAccess& usedBrowser();

/// The browser process of a program.
class Browser : public ServiceProcess {
public:
    Browser();
};

}  // namespace ternview
