#pragma once

#include "common/PrintableText.h"
#include "tools/Json.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>

namespace Tools {

/// The exit status for a wrong command line.
inline constexpr int wrongUsage = 2;

/// The error of a command line. An unknown argument is reported before a missing one, because it may be a
/// misspelling of the latter.
inline std::string problemOf(const CLI::App& parser, const CLI::ParseError& error) {
    const std::string text = error.what();
    if (const auto end = text.find(" was given a disallowed flag override"); end != std::string::npos) {
        return "--" + text.substr(0, end) + " takes no value";
    }
    const auto unknown = parser.remaining(true);
    const auto given = parser.get_subcommands();
    const bool takesCommand = !parser.get_subcommands([](const CLI::App*) { return true; }).empty();
    if (unknown.empty()) {
        return takesCommand && given.empty() ? "a command is required" : text;
    }
    const auto command = given.empty() ? "" : given.front()->get_name() + ": ";
    const auto& first = unknown.front();
    return command +
           (first.starts_with('-')          ? "unknown option: "
            : takesCommand && given.empty() ? "unknown command: "
                                            : "unexpected argument: ") +
           first;
}

/// Refuses "--flag=value" for every flag: the parser would accept some values as the flag alone.
inline void refuseValuesOfFlags(CLI::App& parser) {
    for (auto* const option : parser.get_options()) {
        if (option->get_items_expected_max() == 0) {
            option->disable_flag_override();
        }
    }
    for (auto* const command : parser.get_subcommands([](const CLI::App*) { return true; })) {
        refuseValuesOfFlags(*command);
    }
}

/// Parses a command line. An error is reported on standard error, escaped for a terminal, or with --json as
/// JSON on standard output if that can be written.
/// @return nothing if the program is to continue; its exit status after the help was printed or an error
[[nodiscard]] inline std::optional<int> parse(CLI::App& parser, int argc, const char* const* argv) {
    refuseValuesOfFlags(parser);
    try {
        parser.parse(argc, argv);
        return {};
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == EXIT_SUCCESS) {
            return parser.exit(error);
        }
        const auto problem = problemOf(parser, error);
        const auto* json = parser.get_option_no_throw("--json");
        const bool isJson = json != nullptr && json->count() > 0; // unless the error ended the parser before
        if (!isJson || !(std::cout << textOf(failure({}, problem)) << std::endl)) {
            std::cerr << Common::printable(problem) << "\nRun with --help for more information." << std::endl;
        }
        return wrongUsage;
    }
}

} // namespace Tools
