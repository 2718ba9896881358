#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace Testbed {

/// How long a test waits for what has to happen: a loaded machine takes its time.
constexpr std::chrono::minutes longestWait{1};

/// Polls until the predicate is true, for conditions without an event.
/// @return whether it became true within the limit
inline bool waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds limit = longestWait) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace Testbed
