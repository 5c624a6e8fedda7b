#include "json_output.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace ternview {
namespace {

// Names of pictures come out of mails and may hold bytes that are no UTF-8; JSON cannot carry those.
constexpr auto kReplaceInvalid = nlohmann::ordered_json::error_handler_t::replace;

struct HelpName {
    Help help;
    std::string_view name;
};

constexpr std::array kHelpNames{
    HelpName{Help::kMbox, "mbox"},           HelpName{Help::kCorrected, "corrected"}, HelpName{Help::kNoText, "noText"},
    HelpName{Help::kPlainText, "plainText"}, HelpName{Help::kWholeText, "wholeText"},
};

/// @throws std::out_of_range for a name that is none
Help helpNamed(std::string_view name) {
    const auto found =
        std::find_if(kHelpNames.begin(), kHelpNames.end(), [name](const HelpName& known) { return known.name == name; });
    return found != kHelpNames.end() ? found->help : throw std::out_of_range("help");
}

/// A number that a process tells which a mail may have taken over. @throws std::out_of_range
template <typename Number>
void take(const nlohmann::json& value, Number& target) {
    const bool isSmall = value.is_number_unsigned()
                             ? std::in_range<Number>(value.get<std::uint64_t>())
                             : value.is_number_integer() && std::in_range<Number>(value.get<std::int64_t>());
    if (!isSmall) {
        throw std::out_of_range("number");
    }
    value.get_to(target);
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
    return printableJson(publicFields(result).dump(2, ' ', false, kReplaceInvalid)) + "\n";
}

std::string printableJson(std::string_view json) {
    std::string printable;
    for (std::size_t at = 0; at < json.size(); ++at) {
        const auto byte = static_cast<unsigned char>(json[at]);
        const auto next = static_cast<unsigned char>(at + 1 < json.size() ? json[at + 1] : 0);
        const bool isLateControl = byte == 0xC2 && next >= 0x80 && next < 0xA0;
        if (byte == 0x7F || isLateControl) {
            constexpr std::string_view kDigits = "0123456789abcdef";
            const unsigned control = isLateControl ? next : byte;
            printable += {'\\', 'u', '0', '0', kDigits[control >> 4], kDigits[control & 15]};
            at += isLateControl ? 1 : 0;
        } else {
            printable += json[at];
        }
    }
    return printable;
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
    // Each level of what is nested costs many times the byte that opens it.
    const auto refuseDepth = [](int depth, nlohmann::json::parse_event_t, const nlohmann::json&) {
        constexpr int kDepthOfFiles = 3;
        return depth <= kDepthOfFiles ? true : throw std::out_of_range("a report is nested too deeply");
    };
    try {
        const auto report = nlohmann::json::parse(text, refuseDepth);
        JobResult result;
        take(report.at("status"), result.status);
        take(report.at("loaderStatus"), result.loaderStatus);
        take(report.at("resultStatus"), result.resultStatus);
        take(report.at("sourceFormat"), result.sourceFormat);
        take(report.at("documentFormat"), result.documentFormat);
        take(report.at("messageCount"), result.messageCount);
        take(report.at("messageIndex"), result.messageIndex);
        take(report.at("size"), result.size);
        take(report.at("pages"), result.pages);
        for (const auto& file : report.at("tempFiles")) {
            TempFile known{file.at("name").get<std::string>(), 0};
            take(file.at("size"), known.size);
            result.tempFiles.push_back(std::move(known));
        }
        for (const auto& help : report.at("helps")) {
            result.helps.push_back(helpNamed(help.get<std::string>()));
        }
        take(report.at("width"), result.width);
        take(report.at("height"), result.height);
        result.origin.engine = report.value("htmlEngine", "");
        report.at("note").get_to(result.origin.note);
        take(report.at("xResolution"), result.xResolution);
        take(report.at("yResolution"), result.yResolution);
        int failure = 0;
        take(report.at("failure"), failure);
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
