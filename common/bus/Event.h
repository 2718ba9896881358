#pragma once

#include <asio/awaitable.hpp>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <list>

namespace Common {

using TimePoint = std::chrono::steady_clock::time_point;

/// The time left until a deadline, at least 1 us: the bus library replaces a time-out of 0 by its default.
[[nodiscard]] std::chrono::microseconds remainingUntil(TimePoint deadline);

/// A one-time event that coroutines of the loop wait for. Loop's thread only. It must outlive the waiting
/// coroutines: share it with them.
class Event {
public:
    explicit Event(asio::io_context& loop)
        : loop_(loop) {}
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    /// Sets the event and resumes the waiting coroutines in a later turn of the loop.
    void set();

    /// @return whether the event was set before the deadline
    [[nodiscard]] asio::awaitable<bool> wait(TimePoint deadline = TimePoint::max());

private:
    asio::io_context& loop_;
    bool isSet_ = false;
    std::list<asio::steady_timer*> waiting_;
};

} // namespace Common
