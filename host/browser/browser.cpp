#include "browser/browser.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "browser/browser_requests.h"
#include "job.h"

namespace ternview {
namespace {

namespace fs = std::filesystem;

constexpr char kProgram[] = "ternview-browser";
// Of chromium-headless-shell and of chromium. The programs of the same names on the search path are scripts, which read the
// settings of people who browse.
constexpr std::array kDefaultBrowsers{"/usr/lib/chromium/chromium-headless-shell", "/usr/lib/chromium/chromium"};
// Starting the browser, and ending it, are no part of a document's own time.
constexpr std::chrono::seconds kStartAllowance{20};

ServiceAccess currentAccess;

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool isProgram(const fs::path& path) {
    std::error_code error;
    return fs::is_regular_file(path, error) && ::access(path.c_str(), X_OK) == 0;
}

/// @return where the browser was looked for
std::string lookedFor() {
    const std::string named = variable("TERNVIEW_BROWSER");
    return named.empty() ? fs::path(kDefaultBrowsers.front()).parent_path().string() : named;
}

/// Where people have said that something else confines it, such as a container that has no user namespaces.
bool isConfinedOtherwise() {
    return variable("TERNVIEW_BROWSER_SANDBOX") == "off";
}

ServiceCommand browserCommand(const std::string& directory) {
    return {.program = serviceProgram(kProgram),
            .arguments = {directory, installedBrowser().value_or(lookedFor()).string(),
                          std::string(isConfinedOtherwise() ? kNotConfined : kConfined)},
            .environment = {"PATH=/usr/bin:/bin", "LC_ALL=C.UTF-8"},
            .endSignal = SIGTERM};
}

std::string requestLabel(const PageSetup& setup, const ServiceAccess& access) {
    std::string label = std::to_string(access.timeLimit.count()) + " " + std::to_string(access.countedBytes);
    for (const double length : {setup.width, setup.height, setup.margin}) {
        label += " " + std::to_string(length);
    }
    return label;
}

[[noreturn]] void explain(std::string_view answer) {
    const auto behind = [&answer](std::string_view word) { return std::string(answer.substr(word.size())); };
    if (answer.starts_with(kAnswerUnconfined)) {
        throw JobError(Failure::kBrowserUnconfined, behind(kAnswerUnconfined));
    }
    if (answer.starts_with(kAnswerTimeOver)) {
        throw JobError(Failure::kTimeLimit);
    }
    throw BrowserRefusal("the browser cannot lay it out: " +
                         (answer.starts_with(kAnswerRefused) ? behind(kAnswerRefused) : "it gives no reason"));
}

}  // namespace

std::optional<fs::path> installedBrowser() {
    if (const std::string named = variable("TERNVIEW_BROWSER"); !named.empty()) {
        std::error_code error;
        const fs::path program = fs::canonical(named, error);
        return !error && isProgram(program) ? std::optional(program) : std::nullopt;
    }
    const auto found = std::find_if(kDefaultBrowsers.begin(), kDefaultBrowsers.end(), isProgram);
    return found != kDefaultBrowsers.end() ? std::optional<fs::path>(*found) : std::nullopt;
}

std::string printInBrowser(std::string_view html, const PageSetup& setup, const ServiceAccess& access) {
    if (!installedBrowser()) {
        throw JobError(Failure::kBrowserMissing, lookedFor());
    }
    if (!isProgram(serviceProgram(kProgram))) {
        throw JobError(Failure::kBrowserProgramMissing, serviceProgram(kProgram).string());
    }
    auto answer = askService(access, requestLabel(setup, access), html, kStartAllowance);
    if (const ServiceFailure* failure = std::get_if<ServiceFailure>(&answer)) {
        switch (*failure) {
            case ServiceFailure::kNoWay:
                throw BrowserRefusal("there is no way to the browser that lays it out");
            case ServiceFailure::kTimeOver:
                throw JobError(Failure::kTimeLimit);
            case ServiceFailure::kEndedEarly:
                throw BrowserRefusal("the browser, which lays it out, ended early, as damaged or very large text can make it do");
        }
    }
    auto& message = std::get<ServiceMessage>(answer);
    if (message.kind != FrameKind::kPdf) {
        explain(message.label);
    }
    return std::move(message.bytes);
}

void useBrowser(const ServiceAccess& access) {
    currentAccess = access;
}

const ServiceAccess& usedBrowser() {
    return currentAccess;
}

Browser::Browser() : ServiceProcess(browserCommand) {}

}  // namespace ternview
