#pragma once

#include "common/bus/BusConnection.h"

#include <asio/co_spawn.hpp>
#include <functional>
#include <optional>
#include <stdexcept>

namespace Testbed {

/// A loop that the test's own thread runs, with a connection to the session bus on it.
class LoopDriver {
public:
    /// Runs the loop until the predicate holds.
    /// @return whether it came to hold within the limit
    bool runUntil(const std::function<bool()>& predicate,
                  std::chrono::seconds limit = std::chrono::seconds(10)) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
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
        bool ended = false;
        std::exception_ptr failure;
        std::optional<Result> result;
        asio::co_spawn(loop.context(), std::move(coroutine), [&](std::exception_ptr thrown, Result value) {
            failure = std::move(thrown);
            result = std::move(value);
            ended = true;
        });
        finish(ended, failure);
        return std::move(*result);
    }
    void await(asio::awaitable<void> coroutine) {
        bool ended = false;
        std::exception_ptr failure;
        asio::co_spawn(loop.context(), std::move(coroutine), [&](std::exception_ptr thrown) {
            failure = std::move(thrown);
            ended = true;
        });
        finish(ended, failure);
    }

    [[nodiscard]] static Common::TimePoint soon() {
        return Common::TimePoint::clock::now() + Common::TimePoint::duration(std::chrono::seconds(10));
    }

    std::shared_ptr<sdbus::IConnection> connection = sdbus::createSessionBusConnection();
    Common::Loop loop;
    Common::BusConnection session{loop, connection, [](const sdbus::Error& /*error*/) {}};

private:
    void finish(const bool& ended, const std::exception_ptr& failure) {
        if (!runUntil([&] { return ended; }, std::chrono::seconds(60))) {
            throw std::runtime_error("the coroutine does not end");
        }
        if (failure) {
            std::rethrow_exception(failure);
        }
    }
};

} // namespace Testbed
