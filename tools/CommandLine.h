#pragma once

#include "common/PrintableText.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <optional>
#include <string>

namespace Tools {

/// The exit status of a program whose command line is wrong.
inline constexpr int wrongUsage = 2;

/// Tells on standard error what is wrong with a command line. Safe for a terminal.
inline void tellWrongUsage(const std::string& problem) {
    std::cerr << Common::printable(problem) << "\nRun with --help for more information." << std::endl;
}

/// What is wrong with a command line: what the parser does not know comes first, since what it misses may be
/// just that.
inline std::string problemOf(const CLI::App& parser, const CLI::ParseError& error) {
    const auto unknown = parser.remaining(true);
    const auto given = parser.get_subcommands();
    const bool takesCommand = !parser.get_subcommands([](const CLI::App*) { return true; }).empty();
    if (unknown.empty()) {
        return takesCommand && given.empty() ? "a command is required" : error.what();
    }
    const auto command = given.empty() ? "" : given.front()->get_name() + ": ";
    const auto& first = unknown.front();
    return command +
           (first.starts_with('-')          ? "unknown option: "
            : takesCommand && given.empty() ? "unknown command: "
                                            : "unexpected argument: ") +
           first;
}

/// Parses a command line.
/// @param tell  is given what is wrong with it
/// @return nothing when the program is to go on; its exit status after help was asked for, or after the
///         command line was wrong
[[nodiscard]] inline std::optional<int>
parse(CLI::App& parser, int argc, const char* const* argv,
      const std::function<void(const std::string&)>& tell = tellWrongUsage) {
    try {
        parser.parse(argc, argv);
        return {};
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == EXIT_SUCCESS) {
            return parser.exit(error);
        }
        tell(problemOf(parser, error));
        return wrongUsage;
    }
}

} // namespace Tools
