#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>

namespace Testbed {

struct SoakOptions {
    std::chrono::seconds duration{5};
    std::size_t clients = 64;
    bool withChaos = true; ///< the peers are stopped and killed at random
};

/// Lets many clients send requests of all kinds to a running daemon at once. Then checks every operation:
/// each status was received once and in order, and the last one was received or is stored; the list
/// of operations has none twice and no older status than was received. Prints the number of calls and their
/// latencies.
/// @return the problems, one a line; empty: none
[[nodiscard]] std::string soak(const SoakOptions& options, const std::filesystem::path& package);

/// Runs the package manager, the runtime manager and the identification service in this process; never
/// returns. The package "com.example.app" is installed, and upgrades of it are signalled continuously.
[[noreturn]] void servePeers();

} // namespace Testbed
