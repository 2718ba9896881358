#pragma once

#include "common/bus/Loop.h"

#include <sdbus-c++/sdbus-c++.h>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <optional>

namespace Common {

/// A bus connection driven by the loop: handles incoming messages and call time-outs, and writes queued
/// messages. Loop's thread only.
class BusConnection {
public:
    using LostHandler = std::function<void(const sdbus::Error&)>;

    /// @param connection  must have no other event loop. Waiting coroutines hold messages, which must not
    ///                    outlive the connection: each such coroutine shares its ownership.
    /// @param lost        called once, when the connection is lost. Pending calls get their errors
    /// afterwards.
    ///                    It must not destroy the connection.
    /// Throws std::system_error when no descriptors are available.
    BusConnection(Loop& loop, std::shared_ptr<sdbus::IConnection> connection, LostHandler lost);
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    [[nodiscard]] Loop& loop() { return loop_; }
    [[nodiscard]] sdbus::IConnection& bus() { return *connection_; }
    /// The same, for coroutines that hold messages.
    [[nodiscard]] std::shared_ptr<sdbus::IConnection> sharedBus() { return connection_; }

    /// Posts a task, which may send messages, to the loop. Its exceptions are logged. Any thread.
    void post(std::function<void()> task);

    /// Runs a function that sends a message. Its exceptions are passed on; if one means that the connection
    /// is lost, the lost handler is called first.
    template<typename Send>
    void send(const Send& give) {
        try {
            give();
        } catch (const sdbus::Error& error) {
            reportIfLost(error);
            throw;
        }
        watchOutput();
    }
    /// Calls the lost handler if the error means that the connection is lost. Only for errors of the bus
    /// itself: a peer can send any error name.
    void reportIfLost(const sdbus::Error& error);

    /// Returns when all queued messages have been written to the bus, or at the deadline.
    [[nodiscard]] asio::awaitable<void> flushed(TimePoint deadline);

private:
    void watchOutput();
    void handleMessages();
    void reportLoss(const sdbus::Error& error);
    void waitForEvents();
    void waitForInput();
    void waitForOutput();
    void waitForTimeout(std::chrono::microseconds timeout);

    Loop& loop_;
    std::shared_ptr<sdbus::IConnection> connection_;
    LostHandler lost_;
    asio::posix::stream_descriptor socket_;
    asio::steady_timer timer_;
    std::optional<TimePoint> timeout_; // of the timer
    bool isWaitingForOutput_ = false;
    bool isHandling_ = false;
    bool isUpdateDue_ = false;
    bool isClosed_ = false; // nothing is left to handle
    std::shared_ptr<Event> written_;
    std::shared_ptr<BusConnection*> self_; // handlers of the loop have a weak_ptr to it
};

} // namespace Common
