#include "daemon/MainLoop.h"

#include "common/Guard.h"

#include <sdbus-c++/Error.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>

namespace Daemon {

namespace {

sigset_t terminationSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

Common::UniqueFd checked(int fd, const char* what) {
    if (fd < 0) {
        throw sdbus::createError(errno, what);
    }
    return Common::UniqueFd(fd);
}

void runGuarded(const MainLoop::Task& task) noexcept {
    Common::guarded("couldn't run a task of the main loop", task);
}

} // namespace

MainLoop::MainLoop(sdbus::IConnection& connection)
    : connection_(connection)
    , thread_(std::this_thread::get_id())
    , wakeUp_(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "couldn't create event descriptor")) {
    const auto set = terminationSignals();
    signals_ = checked(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK), "couldn't create signal descriptor");
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// Messages and tasks take turns, so that neither a flood of the one nor of the other holds up the rest.
void MainLoop::run() {
    while (!isStopping()) {
        const bool handled = connection_.processPendingRequest();
        const bool ran = runTask();
        waitForEvents(handled || ran ? 0 : -1);
    }
}

void MainLoop::stop() {
    {
        const std::lock_guard guard(lock_);
        stopping_ = true;
    }
    eventfd_write(wakeUp_.get(), 1);
}

void MainLoop::post(Task task) {
    if (std::this_thread::get_id() == thread_) {
        runGuarded(task);
        return;
    }
    {
        const std::lock_guard guard(lock_);
        tasks_.push_back(std::move(task));
    }
    eventfd_write(wakeUp_.get(), 1);
}

void MainLoop::drain() noexcept {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    try {
        do {
            while (runTask()) {
            }
            if (!hasOutput()) {
                return;
            }
            waitForEvents(100);
            connection_.processPendingRequest();
        } while (std::chrono::steady_clock::now() < deadline);
    } catch (const sdbus::Error&) {
        // A connection that is gone takes nothing; whoever lost it has told so.
    }
}

// Waits until the connection, another thread or a signal has something for the loop.
void MainLoop::waitForEvents(int timeout) {
    const auto bus = connection_.getEventLoopPollData();
    const int busTimeout = bus.getPollTimeout();
    if (timeout < 0 || (busTimeout >= 0 && busTimeout < timeout)) {
        timeout = busTimeout;
    }
    std::array<pollfd, 3> descriptors{pollfd{bus.fd, bus.events, 0}, pollfd{wakeUp_.get(), POLLIN, 0},
                                      pollfd{signals_.get(), POLLIN, 0}};
    if (poll(descriptors.data(), descriptors.size(), timeout) < 0 && errno != EINTR) {
        throw sdbus::createError(errno, "couldn't wait for the bus");
    }
    if (descriptors[1].revents != 0) {
        eventfd_t count = 0;
        eventfd_read(wakeUp_.get(), &count);
    }
    signalfd_siginfo received{};
    if (descriptors[2].revents != 0 && read(signals_.get(), &received, sizeof received) > 0) {
        stop();
        const auto set = terminationSignals();
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    }
}

// Runs a posted task, if the bus takes what it may send: the bus library's queue is finite, ours holds the
// rest.
bool MainLoop::runTask() {
    if (hasOutput()) {
        return false;
    }
    const auto task = takeTask();
    if (task) {
        runGuarded(task);
    }
    return static_cast<bool>(task);
}

bool MainLoop::isStopping() {
    const std::lock_guard guard(lock_);
    return stopping_;
}

bool MainLoop::hasOutput() const {
    return (static_cast<unsigned>(connection_.getEventLoopPollData().events) &
            static_cast<unsigned>(POLLOUT)) != 0;
}

MainLoop::Task MainLoop::takeTask() {
    const std::lock_guard guard(lock_);
    if (tasks_.empty()) {
        return {};
    }
    auto task = std::move(tasks_.front());
    tasks_.pop_front();
    return task;
}

} // namespace Daemon
