#pragma once

#include "common/UniqueFd.h"
#include "devkit/support/Spawn.h"

#include <chrono>
#include <csignal>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace Devkit {

/// What a supervisor was waiting for.
struct Event {
    enum class Kind { Readable, Signal, Ended, TimedOut };
    Kind kind;
    std::string program; ///< Ended: its name
    int status = 0;      ///< Ended: exit status, or 128 and the signal's number; Signal: the signal's number
    bool killed = false; ///< Ended: whether by a signal
};

/// Starts programs and outlives everything that they start: also a process whose parents are gone is its
/// child and ends with it. Main thread only, one object at a time per process.
class Supervisor {
public:
    using Clock = std::chrono::steady_clock;

    /// Blocks SIGCHLD, SIGINT, SIGTERM and SIGHUP: from now on they are events.
    /// Throws std::system_error.
    Supervisor();
    /// Ends all programs, then whatever is left of what they started.
    ~Supervisor();
    Supervisor(const Supervisor&) = delete;
    Supervisor& operator=(const Supervisor&) = delete;

    /// Starts a program. Throws as spawn() does.
    /// @param name  what events call it
    /// @param stopSignal  asks it to end
    void start(const std::string& name, const std::vector<std::string>& arguments,
               const SpawnOptions& options, int stopSignal = SIGTERM);

    /// Takes over a child that was started otherwise.
    void adopt(const std::string& name, pid_t process, int stopSignal = SIGTERM);

    /// Waits for a signal to this process, the end of a program, the descriptor or the deadline.
    [[nodiscard]] Event wait(int descriptor = -1, std::optional<Clock::time_point> deadline = {});

    /// Ends the programs, the last one started first: asks each, kills it when it takes more than three
    /// seconds. Then kills everything else that descends from this process.
    /// @return what is left: processes of another user, which may not be killed. They are not waited for.
    std::vector<pid_t> stopAll() noexcept;

    /// Asks a program to end and returns at once.
    void stop(const std::string& name) noexcept;

private:
    struct Program {
        std::string name;
        pid_t process;
        int stopSignal;
    };

    void reap();
    void stopLast();
    [[nodiscard]] std::optional<Event> takeEvent();
    /// Returns whether the descriptor is readable.
    [[nodiscard]] bool waitForDescriptors(int descriptor, int timeout);

    Common::UniqueFd signals_;
    std::vector<Program> programs_; // in the order of their start
    std::deque<Event> events_;
};

} // namespace Devkit
