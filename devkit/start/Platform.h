#pragma once

#include "devkit/start/Supervisor.h"

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace Devkit {

/// A signal asked for the end.
struct Interruption {
    int signal;
};

/// A whole platform in a directory: two buses, keys, the peers and the daemon. Main thread only.
///
///     bus/        sockets of the session and the system bus
///     etc/        what the daemon finds in "/etc" first
///     home/       home of the services
///     keys/       throw-away keys, unless others are given
///     logs/       a log per program
///     opt/        the package database and its temporary directory
///     root/       the system root: where packages' files appear
class Platform {
public:
    struct Settings {
        std::filesystem::path directory; ///< empty, the platform's own
        std::filesystem::path logs;
        std::filesystem::path keys; ///< of the authority and those that it certifies; made if missing
        bool privateEtc = true;     ///< the daemon gets an "/etc" of its own
    };

    Platform(Settings settings, Supervisor& supervisor);

    /// Starts everything, one after the other; each program is ready when it has taken its name on the bus.
    /// Throws Interruption; std::exception when something cannot be started, with the end of its log.
    void start();

    /// Runs a command in the platform and waits for its end.
    /// @return its exit status, or 128 and the signal's number; 127 when there is no such command, and 126
    ///         when it cannot be executed, after that was told
    /// Throws Interruption; std::runtime_error when a program of the platform ends or no process can be made.
    int run(const std::vector<std::string>& command, int stopSignal);

    /// Waits for a program of the platform to end: throws as run().
    [[noreturn]] void waitForTrouble();

    /// The variables that a client needs, "NAME=value".
    [[nodiscard]] std::vector<std::string> environment() const;

private:
    void makeDirectories() const;
    [[nodiscard]] bool mayAttachSecurityAttributes() const;
    void makeKeys();
    std::string startBus(const std::string& name);
    void startService(const std::string& program, const std::vector<std::string>& options, bool privateEtc);
    void startProgram(const std::string& name, const std::vector<std::string>& arguments,
                      SpawnOptions options);
    void waitUntilReadable(int descriptor, const std::string& forWhat);
    [[nodiscard]] std::runtime_error failureOf(const Event& ended) const;

    Settings settings_;
    Supervisor& supervisor_;
    std::string sessionBus_; // addresses
    std::string systemBus_;
};

} // namespace Devkit
