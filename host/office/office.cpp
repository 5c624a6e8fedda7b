#include "office.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "job.h"
#include "office_requests.h"

namespace ternview {
namespace {

namespace fs = std::filesystem;

constexpr char kProgram[] = "ternview-office";
constexpr char kDefaultSuite[] = "/usr/lib/libreoffice/program";
// Starting the suite, and ending it, are no part of a document's own time.
constexpr std::chrono::seconds kStartAllowance{30};

OfficeAccess currentAccess;

fs::path suiteDirectory() {
    const char* named = std::getenv("TERNVIEW_OFFICE");
    return named != nullptr && *named != '\0' ? named : kDefaultSuite;
}

bool isThere(const fs::path& path) {
    std::error_code error;
    return fs::exists(path, error);
}

/// Looked at before asking, as a suite without its word processor starts and then fails in obscure ways.
void requireSuite() {
    const fs::path suite = suiteDirectory();
    const bool hasCore = isThere(suite / "libsofficeapp.so") || isThere(suite / "libmergedlo.so");
    if (!hasCore || !isThere(suite / "libswlo.so")) {
        throw JobError(Failure::kOfficeMissing, suite.string());
    }
    if (!isThere(serviceProgram(kProgram))) {
        throw JobError(Failure::kOfficeProgramMissing, serviceProgram(kProgram).string());
    }
}

std::string requestLabel(OfficeTarget target, const OfficeAccess& access) {
    const char* name = target == OfficeTarget::kPdf ? "pdf " : target == OfficeTarget::kText ? "text " : "html ";
    return name + std::to_string(access.timeLimit.count()) + " " + std::to_string(access.countedBytes);
}

ServiceCommand officeCommand(const std::string& directory) {
    return {.program = serviceProgram(kProgram),
            .arguments = {directory, suiteDirectory().string()},
            .environment = {"HOME=" + directory, "FONTCONFIG_FILE=" + directory + "/" + kOfficeFonts, "TMPDIR=" + directory,
                            "PATH=/usr/bin:/bin", "LC_ALL=C.UTF-8"}};
}

}  // namespace

std::string convertInOffice(std::string_view rtf, OfficeTarget target, const OfficeAccess& access) {
    if (!rtf.starts_with("{\\rtf")) {
        throw LoadError("its text is damaged: it is no RTF");
    }
    if (rtf.size() > kLargestServiceMessage) {
        throw LoadError("its text is too large to be laid out");
    }
    requireSuite();
    auto answer = askService(access, requestLabel(target, access), rtf, kStartAllowance);
    if (const ServiceFailure* failure = std::get_if<ServiceFailure>(&answer)) {
        switch (*failure) {
            case ServiceFailure::kNoWay:
                throw LoadError("its text is RTF, and there is no way to the office suite that lays RTF out");
            case ServiceFailure::kTimeOver:
                throw JobError(Failure::kTimeLimit);
            case ServiceFailure::kEndedEarly:
                throw LoadError(
                    "the office suite, which lays RTF out, ended early, as damaged or very large text can make it do");
        }
    }
    auto& message = std::get<ServiceMessage>(answer);
    if (message.kind == FrameKind::kResult) {
        throw OfficeRefusal("the office suite cannot lay its text out: " + message.label);
    }
    return std::move(message.bytes);
}

void useOffice(const OfficeAccess& access) {
    currentAccess = access;
}

const OfficeAccess& usedOffice() {
    return currentAccess;
}

Office::Office() : ServiceProcess(officeCommand) {}

}  // namespace ternview
