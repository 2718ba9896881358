#pragma once

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <optional>

namespace Devkit {

/// The exit status of a program whose command line is wrong.
inline constexpr int wrongUsage = 2;

/// Parses a command line.
/// @return nothing when the program is to go on; its exit status after help was asked for, or after the
/// command
///         line was wrong and that was told
[[nodiscard]] inline std::optional<int> parse(CLI::App& parser, int argc, const char* const* argv) {
    try {
        parser.parse(argc, argv);
        return {};
    } catch (const CLI::ParseError& error) {
        return parser.exit(error) == 0 ? EXIT_SUCCESS : wrongUsage;
    }
}

} // namespace Devkit
