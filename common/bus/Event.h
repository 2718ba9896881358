#pragma once

#include <asio/awaitable.hpp>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <list>

namespace Common {

using TimePoint = std::chrono::steady_clock::time_point;

/// The time that is left until a deadline, at least 1 us: a time-out of 0 would mean the bus library's
/// default.
[[nodiscard]] std::chrono::microseconds remainingUntil(TimePoint deadline);

/// Something that happens once and that coroutines of the loop wait for. Loop's thread only. It must outlive
/// those that wait: share it with them.
class Event {
public:
    explicit Event(asio::io_context& loop)
        : loop_(loop) {}
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    /// Resumes all that wait, in a later turn of the loop, and all that will wait.
    void set();

    /// @return whether the event happened before the deadline
    [[nodiscard]] asio::awaitable<bool> wait(TimePoint deadline = TimePoint::max());

private:
    asio::io_context& loop_;
    bool isSet_ = false;
    std::list<asio::steady_timer*> waiting_;
};

} // namespace Common
