#pragma once

#include "common/UniqueFd.h"

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <sys/types.h>
#include <thread>

namespace Devkit {

/// Tells when a descriptor has become readable: that of a process when the process has ended, that of a timer
/// when its time has come. Its thread runs the handlers and ends with the object.
class Watcher {
public:
    using Handler = std::function<void()>;

    /// Throws std::system_error when the system has no descriptors left.
    Watcher();
    /// Waits for a handler that is running; the others are forgotten.
    ~Watcher();
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    /// Calls the handler once, on the watcher's thread, and closes the descriptor. Any thread, handlers
    /// included. Throws std::system_error; the handler is then never called.
    void whenReadable(Common::UniqueFd descriptor, Handler handler);

private:
    struct Watch {
        Common::UniqueFd descriptor;
        Handler handler;
    };

    void run() noexcept;
    [[nodiscard]] Watch take(int descriptor);

    Common::UniqueFd epoll_;
    Common::UniqueFd stop_;
    std::mutex lock_; // guards watches_
    std::map<int, Watch> watches_;
    std::thread thread_;
};

/// A descriptor of the process (pidfd_open(2)). Throws std::system_error, ESRCH when there is no such
/// process.
[[nodiscard]] Common::UniqueFd processDescriptor(pid_t process);

/// A descriptor that becomes readable once the time has passed (timerfd_create(2)). Throws std::system_error.
[[nodiscard]] Common::UniqueFd timerDescriptor(std::chrono::milliseconds time);

} // namespace Devkit
