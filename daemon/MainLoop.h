#pragma once

#include "common/UniqueFd.h"

#include <sdbus-c++/IConnection.h>

#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace Daemon {

/// The event loop of the service's own connection, run by the main thread. It handles the connection's
/// messages, the tasks that other threads post, and SIGTERM and SIGINT.
///
/// The first of these signals that run() or drain() finds when it polls ends run(), and from then on the next
/// kills the process, whatever it is doing. Until then they wait: while a handler or a task runs, and for
/// good when run() has ended for another reason and drain() has nothing to wait for. Those that wait count
/// once each, so that one SIGTERM and one SIGINT that were waiting together kill the process.
///
/// Nothing is sent on the connection from another thread: the bus library would leave such a message in its
/// queue until something else arrives. A thread that has something to send posts a task.
class MainLoop {
public:
    using Task = std::function<void()>;

    /// Blocks SIGTERM and SIGINT in the calling thread and those that it starts from now on.
    /// Throws sdbus::Error when the system has no descriptors left.
    explicit MainLoop(sdbus::IConnection& connection);
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;

    /// Runs until stop() or one of the signals. Throws sdbus::Error when the connection is lost.
    void run();

    /// Ends run(), now or the next one. Any thread.
    void stop();

    /// Has the main thread run the task, after those posted before; at once if this is the main thread, so
    /// that what a handler sends precedes its reply. Any thread. What a task throws is logged.
    void post(Task task);

    /// Runs what is still posted and writes out what is still queued, after run() has ended. Waits up to two
    /// seconds for the bus to take it. Main thread only.
    void drain() noexcept;

private:
    void waitForEvents(int timeout);
    bool runTask();
    [[nodiscard]] bool isStopping();
    [[nodiscard]] bool hasOutput() const;
    [[nodiscard]] Task takeTask();

    sdbus::IConnection& connection_;
    const std::thread::id thread_;
    Common::UniqueFd wakeUp_;
    Common::UniqueFd signals_;
    std::mutex lock_; // guards tasks_ and stopping_
    std::deque<Task> tasks_;
    bool stopping_ = false;
};

} // namespace Daemon
