#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>

namespace Testbed {

/// Waits until the predicate holds, for things that send no event of their own.
/// @return whether it came to hold within the limit
inline bool waitUntil(const std::function<bool()>& predicate,
                      std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// What a promise is kept with, for events that a handler reports.
/// Throws std::runtime_error when it is not kept within the limit.
template<typename Value>
Value waitFor(std::promise<Value>& promise, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    auto future = promise.get_future();
    if (future.wait_for(limit) != std::future_status::ready) {
        throw std::runtime_error("timed out");
    }
    return future.get();
}

} // namespace Testbed
