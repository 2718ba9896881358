#include "devkit/support/Watcher.h"

#include "common/LogLine.h"
#include "devkit/support/Spawn.h"

#include <cerrno>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace Devkit {

namespace {

void add(int epoll, int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    checked(epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event), "couldn't watch a descriptor");
}

} // namespace

Watcher::Watcher()
    : epoll_(checked(epoll_create1(EPOLL_CLOEXEC), "couldn't create an event queue"))
    , stop_(checked(eventfd(0, EFD_CLOEXEC), "couldn't create an event descriptor")) {
    add(epoll_.get(), stop_.get());
    thread_ = std::thread([this] { run(); });
}

Watcher::~Watcher() {
    eventfd_write(stop_.get(), 1);
    thread_.join();
}

void Watcher::whenReadable(Common::UniqueFd descriptor, Handler handler) {
    const int number = descriptor.get();
    const std::lock_guard guard(lock_);
    // Under the lock, so that the thread finds the handler also when the descriptor is readable already.
    add(epoll_.get(), number);
    watches_.insert_or_assign(number, Watch{std::move(descriptor), std::move(handler)});
}

void Watcher::run() noexcept {
    for (;;) {
        epoll_event event{};
        if (epoll_wait(epoll_.get(), &event, 1, -1) != 1) {
            continue;
        }
        if (event.data.fd == stop_.get()) {
            return;
        }
        try {
            take(event.data.fd).handler();
        } catch (const std::exception& error) {
            Common::logFailure(Common::LogLevel::Error, "couldn't handle an event", error);
        }
    }
}

Watcher::Watch Watcher::take(int descriptor) {
    const std::lock_guard guard(lock_);
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor, nullptr);
    auto node = watches_.extract(descriptor);
    return std::move(node.mapped());
}

Common::UniqueFd processDescriptor(pid_t process) {
    // The C library's own declaration is of no use to C++ in version 2.36.
    const auto descriptor = static_cast<int>(syscall(SYS_pidfd_open, process, 0U));
    return Common::UniqueFd(checked(descriptor, "couldn't open a process"));
}

Common::UniqueFd timerDescriptor(std::chrono::milliseconds time) {
    Common::UniqueFd timer(checked(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC), "couldn't create a timer"));
    itimerspec when{};
    when.it_value.tv_sec = time.count() / 1000;
    // A value of zero would disarm the timer.
    when.it_value.tv_nsec = (time.count() % 1000) * 1000000 + 1;
    checked(timerfd_settime(timer.get(), 0, &when, nullptr), "couldn't set a timer");
    return timer;
}

} // namespace Devkit
