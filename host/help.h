// How the program's help looks. The manual page and the completions are made from what it prints.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace ternview {

/// Prints the help of the program or of one command in lines of 80 columns, with the usage first.
class HelpFormatter final : public CLI::Formatter {
public:
    std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override;
    std::string make_usage(const CLI::App* app, std::string name) const override;
    std::string make_option(const CLI::Option* option, bool isPositional) const override;
    std::string make_subcommand(const CLI::App* command) const override;
};

/// Gives the program and its commands, which it must have already, this look and an end with examples.
void describeForPeople(CLI::App& program);

}  // namespace ternview
