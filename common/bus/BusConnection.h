#pragma once

#include "common/bus/Loop.h"

#include <sdbus-c++/sdbus-c++.h>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace Common {

/// A bus connection that the loop drives: its messages are handled, its time-outs are watched and what it
/// could not send at once is sent later. Loop's thread only.
class BusConnection {
public:
    using LostHandler = std::function<void(const sdbus::Error&)>;

    /// @param connection  not run by anybody else. Coroutines that wait hold messages of it, which must not
    /// outlive
    ///                    it: what owns the loop's last coroutine keeps it, so share it.
    /// @param lost        called once, when it is first seen that the bus is gone. Pending calls get their
    /// error
    ///                    afterwards. The connection must not be destroyed in it.
    /// Throws std::system_error when the system has no descriptors left.
    BusConnection(Loop& loop, std::shared_ptr<sdbus::IConnection> connection, LostHandler lost);
    ~BusConnection();
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    [[nodiscard]] Loop& loop() { return loop_; }
    [[nodiscard]] sdbus::IConnection& bus() { return *connection_; }
    /// The same, for those that hold messages.
    [[nodiscard]] std::shared_ptr<sdbus::IConnection> sharedBus() { return connection_; }

    /// Has the loop run a task that may send, after those posted before. What it throws is logged. Any
    /// thread.
    void post(std::function<void()> task);

    /// To be called after a message was handed to the bus library other than from one of its handlers.
    void sent();
    /// To be called with the error of a call or of sending, before anything is made of it.
    /// @return whether it means that the bus is gone; the lost handler has been called then
    bool isLoss(const sdbus::Error& error);

    /// Returns when all that was sent has been written to the bus, or at the deadline.
    [[nodiscard]] asio::awaitable<void> flushed(TimePoint deadline);

private:
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
    bool isClosed_ = false; // the bus library has nothing more to handle
    std::shared_ptr<Event> written_;
    std::shared_ptr<BusConnection*> self_; // what handlers of the loop hold weakly
};

} // namespace Common
