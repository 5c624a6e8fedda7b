#include "json_output.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace ternview {
namespace {

// Names of pictures come out of mails and may hold bytes that are no UTF-8; JSON cannot carry those.
constexpr auto kReplaceInvalid = nlohmann::ordered_json::error_handler_t::replace;

struct HelpName {
    Help help;
    std::string_view name;
};

constexpr std::array kHelpNames{
    HelpName{Help::kMbox, "mbox"},
    HelpName{Help::kCorrected, "corrected"},
    HelpName{Help::kNoText, "noText"},
    HelpName{Help::kPlainText, "plainText"},
};

/// @throws std::out_of_range for a name that is none
Help helpNamed(std::string_view name) {
    const auto found =
        std::find_if(kHelpNames.begin(), kHelpNames.end(), [name](const HelpName& known) { return known.name == name; });
    return found != kHelpNames.end() ? found->help : throw std::out_of_range("help");
}

nlohmann::ordered_json publicFields(const JobResult& result) {
    nlohmann::ordered_json files = nlohmann::ordered_json::array();
    for (const TempFile& file : result.tempFiles) {
        files.push_back({{"name", file.name}, {"size", file.size}});
    }
    nlohmann::ordered_json fields{
        {"status", result.status},
        {"loaderStatus", result.loaderStatus},
        {"resultStatus", result.resultStatus},
        {"sourceFormat", result.sourceFormat},
        {"documentFormat", result.documentFormat},
        {"messageCount", result.messageCount},
        {"messageIndex", result.messageIndex},
        {"size", result.size},
        {"pages", result.pages},
        {"tempFiles", std::move(files)},
        {"helps", helpNames(result.helps)},
    };
    if (!result.origin.engine.empty()) {
        fields["htmlEngine"] = result.origin.engine;
    }
    return fields;
}

}  // namespace

std::vector<std::string_view> helpNames(const std::vector<Help>& helps) {
    std::vector<std::string_view> names;
    for (const HelpName& known : kHelpNames) {
        if (std::find(helps.begin(), helps.end(), known.help) != helps.end()) {
            names.push_back(known.name);
        }
    }
    return names;
}

std::string resultAsJson(const JobResult& result) {
    return publicFields(result).dump(2, ' ', false, kReplaceInvalid) + "\n";
}

std::string packResult(const JobResult& result) {
    nlohmann::ordered_json report = publicFields(result);
    report["width"] = result.width;
    report["height"] = result.height;
    report["note"] = result.origin.note;
    report["xResolution"] = result.xResolution;
    report["yResolution"] = result.yResolution;
    report["failure"] = static_cast<int>(result.failure);
    report["detail"] = result.detail;
    return report.dump(-1, ' ', false, kReplaceInvalid);
}

std::optional<JobResult> unpackResult(std::string_view text) {
    try {
        const auto report = nlohmann::json::parse(text);
        JobResult result;
        report.at("status").get_to(result.status);
        report.at("loaderStatus").get_to(result.loaderStatus);
        report.at("resultStatus").get_to(result.resultStatus);
        report.at("sourceFormat").get_to(result.sourceFormat);
        report.at("documentFormat").get_to(result.documentFormat);
        report.at("messageCount").get_to(result.messageCount);
        report.at("messageIndex").get_to(result.messageIndex);
        report.at("size").get_to(result.size);
        report.at("pages").get_to(result.pages);
        for (const auto& file : report.at("tempFiles")) {
            result.tempFiles.push_back({file.at("name").get<std::string>(), file.at("size").get<std::uint64_t>()});
        }
        for (const auto& help : report.at("helps")) {
            result.helps.push_back(helpNamed(help.get<std::string>()));
        }
        report.at("width").get_to(result.width);
        report.at("height").get_to(result.height);
        result.origin.engine = report.value("htmlEngine", "");
        report.at("note").get_to(result.origin.note);
        report.at("xResolution").get_to(result.xResolution);
        report.at("yResolution").get_to(result.yResolution);
        const int failure = report.at("failure").get<int>();
        if (failure < 0 || failure > static_cast<int>(Failure::kLast)) {
            return std::nullopt;
        }
        result.failure = static_cast<Failure>(failure);
        report.at("detail").get_to(result.detail);
        return result;
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    } catch (const std::out_of_range&) {
        return std::nullopt;
    }
}

}  // namespace ternview
