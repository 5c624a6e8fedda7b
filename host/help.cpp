#include "help.h"

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <sstream>
#include <string_view>

namespace ternview {
namespace {

constexpr std::size_t kLineWidth = 80;
constexpr std::size_t kDescriptionColumn = 24;

constexpr std::string_view kProgramFooter = R"(
ternview COMMAND --help tells of one command; man ternview tells everything.

Exit codes: 0 done, 1 a message cannot be shown, 2 wrong usage, 3 something is
missing on this system.
)";

struct Examples {
    std::string_view command;
    std::string_view lines;
};

constexpr std::array kExamples{
    Examples{"info", R"(
  ternview info mail.eml          what it is, and how many pages it has
  ternview info mail.pst -m 3     the same of a store's third message
)"},
    Examples{"document", R"(
  ternview document mail.eml                        to standard output
  ternview document mail.msg --temp-files -o parts  HTML with its pictures
)"},
    Examples{"render", R"(
  ternview render mail.eml -o page-%d.png     pages as pictures
  ternview render mail.eml -o mail.pdf        one PDF with searchable text
  ternview render mail.pst -m 3 -p 1 -r 200   page 1 of the third message
)"},
    Examples{"list", R"(
  ternview list mail.pst          every message of a store
  ternview list *.eml *.msg       of many files
)"},
    Examples{"export", R"(
  ternview export mail.pst -o mail    every message of a store into a directory
)"},
    Examples{"thumbnail", R"(
  ternview thumbnail mail.eml mail.png 256    a picture 256 pixels high
)"},
};

/// Two columns; the second begins on a line of its own when the first is too long, and keeps within the line width.
std::string columns(const std::string& left, const std::string& right) {
    std::string text = "  " + left;
    std::size_t column = text.size();
    if (column + 2 > kDescriptionColumn) {
        text += '\n';
        column = 0;
    }
    const auto indent = [&text, &column] {
        text.append(kDescriptionColumn - column, ' ');
        column = kDescriptionColumn;
    };
    indent();
    std::istringstream words(right);
    for (std::string word; words >> word;) {
        if (column > kDescriptionColumn && column + 1 + word.size() > kLineWidth) {
            text += '\n';
            column = 0;
            indent();
        }
        const bool isFirst = column == kDescriptionColumn;
        text += (isFirst ? "" : " ") + word;
        column += word.size() + (isFirst ? 0 : 1);
    }
    return text + "\n";
}

/// What stands for an option's value: the words it may be, or the kind of value.
std::string valueName(const CLI::Option& option) {
    std::string type = option.get_type_name();
    const std::size_t brace = type.find('{');
    if (brace != std::string::npos) {
        std::string words = type.substr(brace + 1, type.find('}') - brace - 1);
        std::replace(words.begin(), words.end(), ',', '|');
        return words;
    }
    type = type.substr(0, type.find_first_of(": "));
    return type == "INT" || type == "UINT" || type == "FLOAT" ? "NUMBER" : type;
}

std::string optionNames(const CLI::Option& option) {
    std::string names;
    for (const std::string& name : option.get_snames()) {
        names += (names.empty() ? "-" : ", -") + name;
    }
    for (const std::string& name : option.get_lnames()) {
        names += (names.empty() ? "--" : ", --") + name;
    }
    const std::string value = option.get_expected_max() == 0 ? "" : valueName(option);
    return value.empty() ? names : names + " " + value;
}

/// "10 to 1200" out of a type such as "INT in [10 - 1200]"; empty when there is no upper bound worth telling.
std::string rangeOf(const std::string& type) {
    constexpr std::string_view kBegin = "in [";
    constexpr std::string_view kBetween = " - ";
    const std::size_t begin = type.find(kBegin);
    const std::size_t between = type.find(kBetween, begin);
    const std::size_t end = type.find(']', between);
    if (begin == std::string::npos || between == std::string::npos || end == std::string::npos) {
        return {};
    }
    const std::size_t least = begin + kBegin.size();
    const std::size_t most = between + kBetween.size();
    const std::string upper = type.substr(most, end - most);
    return upper == std::to_string(std::numeric_limits<std::int32_t>::max())
               ? std::string()
               : type.substr(least, between - least) + " to " + upper;
}

/// What the option's checks know, behind its description: " (10 to 1200; default 96; not with --other)".
std::string remarks(const CLI::Option& option) {
    std::string text;
    const auto add = [&text](const std::string& remark) { text += (text.empty() ? " (" : "; ") + remark; };
    if (const std::string range = rangeOf(option.get_type_name()); !range.empty()) {
        add(range);
    }
    if (!option.get_default_str().empty()) {
        add("default " + option.get_default_str());
    }
    for (const CLI::Option* other : option.get_excludes()) {
        add("not with " + other->get_name());
    }
    return text.empty() ? text : text + ")";
}

}  // namespace

std::string HelpFormatter::make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const {
    return make_usage(app, std::move(name)) + "\n" + app->get_description() + ".\n" + make_positionals(app) +
           make_groups(app, mode) + make_subcommands(app, mode) + app->get_footer();
}

std::string HelpFormatter::make_usage(const CLI::App* app, std::string name) const {
    std::string usage = "Usage: " + name + " [OPTION]...";
    for (const CLI::Option* option : app->get_options([](const CLI::Option* each) { return each->get_positional(); })) {
        const std::string repeated = option->get_expected_max() > 1 ? "..." : "";
        usage += option->get_required() ? " " + option->get_name() + repeated : " [" + option->get_name() + "]" + repeated;
    }
    return usage + (app->get_require_subcommand_min() > 0 ? " COMMAND\n" : "\n");
}

std::string HelpFormatter::make_option(const CLI::Option* option, bool isPositional) const {
    return columns(isPositional ? option->get_name() : optionNames(*option), option->get_description() + remarks(*option));
}

std::string HelpFormatter::make_subcommand(const CLI::App* command) const {
    return columns(command->get_name(), command->get_description());
}

void describeForPeople(CLI::App& program) {
    const auto formatter = std::make_shared<HelpFormatter>();
    formatter->label("Positionals", "Arguments");
    program.formatter(formatter);
    program.set_help_flag("-h,--help", "Print this help and end");
    program.footer(std::string(kProgramFooter));
    for (CLI::App* command : program.get_subcommands({})) {
        command->formatter(formatter);
        command->group("Commands");
        command->set_help_flag("-h,--help", "Print this help and end");
        const auto found = std::find_if(kExamples.begin(), kExamples.end(),
                                        [command](const Examples& each) { return each.command == command->get_name(); });
        if (found != kExamples.end()) {
            command->footer("\nExamples:" + std::string(found->lines));
        }
    }
}

}  // namespace ternview
