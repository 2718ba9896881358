#pragma once

#include "common/Spawn.h"
#include "common/bus/BusConnection.h"
#include "common/bus/SignalSource.h"

#include <csignal>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace Devkit {

/// A signal requested the end of the platform.
struct Interruption {
    int signal;
};

/// The signals that end a platform: SIGTERM and, unless this process was started to ignore them, as by
/// nohup(1), SIGINT, SIGHUP and SIGQUIT. Any thread.
[[nodiscard]] std::vector<int> interruptions();

/// A whole platform in a directory: two buses, keys, the peers and the daemon. Main thread only, one object
/// per process. The destructor ends the programs in reverse order, and all processes that they have started.
///
///     bus/        sockets of the session and the system bus
///     etc/zul/    "/etc/zul" of the daemon
///     home/       home of the services
///     keys/       test keys, unless others are given
///     logs/       a log per program
///     opt/        the package database and its temporary directory
///     root/       root directory of the mappings
///
/// SIGCHLD and the interruptions() must be blocked before construction and stay blocked. Functions that wait
/// throw Interruption for such a signal, and std::runtime_error, with the last lines of its log, when a
/// program of the platform ends.
class Platform {
public:
    struct Settings {
        std::filesystem::path directory; ///< empty, the platform's own
        std::filesystem::path logs;
        std::filesystem::path keys; ///< of the authority and the signers; created if missing
        bool privateEtc = true;     ///< gives the daemon its own "/etc"
    };

    explicit Platform(Settings settings);
    ~Platform();
    Platform(const Platform&) = delete;
    Platform& operator=(const Platform&) = delete;

    /// Starts everything. A program is ready when it has its name on the bus. Throws std::exception when
    /// something cannot be started.
    void start();

    /// Runs a command in the platform and waits for its end.
    /// @param stopSignal  requests its end
    /// @return its exit status, or 128 plus the signal's number; 127 if the command does not exist, 126 if it
    ///         cannot be executed; both print a message
    int run(const std::vector<std::string>& command, int stopSignal);

    /// Waits for a signal or the end of a program: always throws.
    [[noreturn]] void waitForFailure();

    /// The environment variables for clients, "NAME=value".
    [[nodiscard]] std::vector<std::string> environment() const;

private:
    struct Program {
        std::string name;
        pid_t process;
        pid_t target; // of signals: the process or, negative, its group
        int stopSignal;
    };

    void handleSignals();
    void reap();
    static void stop(const Program& program);
    void makeDirectories() const;
    [[nodiscard]] bool mayAttachSecurityAttributes() const;
    void makeKeys();
    std::string startBus(const std::string& name);
    void startService(const std::string& program, const std::vector<std::string>& options);
    void startProgram(const std::string& name, const std::vector<std::string>& arguments);
    [[nodiscard]] Common::UniqueFd openLog(const std::string& program) const;
    [[nodiscard]] std::unique_ptr<Common::SignalSource> expect(const std::string& name,
                                                               Common::BusConnection& bus);
    void waitForNames();
    [[nodiscard]] int waitForEndOf(const std::string& name);
    [[nodiscard]] std::runtime_error failureOf(const std::string& program, int status) const;

    Settings settings_;
    Common::Loop loop_;
    asio::signal_set signals_;
    std::vector<Program> programs_; // in the order of their start
    std::set<std::string> missing_; // names that programs are about to own
    std::string awaited_;           // the program that is expected to end
    int status_ = -1;               // of that program, when it has ended
    bool hasSecurityAttributes_ = false;
    std::string sessionBus_; // addresses
    std::string systemBus_;
};

} // namespace Devkit
