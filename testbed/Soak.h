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

/// Has many clients send requests of all kinds to a running daemon at once, then accounts for every
/// operation: its statuses came in order, each once, and its end was sent or is in the store. Prints how many
/// calls were made and their latencies.
/// @return what went wrong, a line each; empty: nothing
[[nodiscard]] std::string soak(const SoakOptions& options, const std::filesystem::path& package);

/// Runs the package manager, the runtime manager and the identification service in this process, for ever.
/// The package "com.example.app" is installed; upgrades of it are reported all the time.
[[noreturn]] void servePeers();

} // namespace Testbed
