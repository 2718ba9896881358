#pragma once

#include "common/bus/BusConnection.h"
#include "testbed/WaitUntil.h"

#include <asio/co_spawn.hpp>
#include <asio/use_future.hpp>
#include <functional>
#include <future>
#include <stdexcept>

namespace Testbed {

/// A loop that the test's own thread runs, with a connection to the session bus on it.
class LoopDriver {
public:
    /// Runs the loop until the predicate holds.
    /// @return whether it came to hold within the limit of waitUntil()
    bool runUntil(const std::function<bool()>& predicate) {
        const auto deadline = soon();
        while (!predicate()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            loop.context().restart();
            loop.context().run_one_for(std::chrono::milliseconds(5));
        }
        return true;
    }

    /// Runs the loop until the coroutine ends; returns what it returns and throws what it throws.
    template<typename Result>
    Result await(asio::awaitable<Result> coroutine) {
        auto result = asio::co_spawn(loop.context(), std::move(coroutine), asio::use_future);
        const auto hasEnded = [&] {
            return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        };
        if (!runUntil(hasEnded)) {
            throw std::runtime_error("the coroutine does not end");
        }
        return result.get();
    }

    [[nodiscard]] static Common::TimePoint soon() { return Common::TimePoint::clock::now() + longestWait; }

    std::shared_ptr<sdbus::IConnection> connection = sdbus::createSessionBusConnection();
    Common::Loop loop;
    Common::BusConnection session{loop, connection, [](const sdbus::Error& /*error*/) {}};
};

} // namespace Testbed
