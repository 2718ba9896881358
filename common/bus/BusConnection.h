#pragma once

#include "common/bus/Loop.h"

#include <sdbus-c++/sdbus-c++.h>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <optional>

namespace Common {

/// A bus connection that the loop drives: its messages are handled, its time-outs are watched and what it
/// could not send at once is sent later. Loop's thread only.
class BusConnection {
public:
    using LostHandler = std::function<void(const sdbus::Error&)>;

    /// @param connection  without another event loop. Waiting coroutines hold messages of it, which must not
    ///                    outlive it: the owner of the loop's last coroutine shares it.
    /// @param lost        called once, when the bus is first found to be gone. Pending calls get their errors
    ///                    afterwards. It must not destroy the connection.
    /// Throws std::system_error when the system has no descriptors left.
    BusConnection(Loop& loop, std::shared_ptr<sdbus::IConnection> connection, LostHandler lost);
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    [[nodiscard]] Loop& loop() { return loop_; }
    [[nodiscard]] sdbus::IConnection& bus() { return *connection_; }
    /// The same, for those that hold messages.
    [[nodiscard]] std::shared_ptr<sdbus::IConnection> sharedBus() { return connection_; }

    /// Posts a task to the loop, which may send messages. Its exceptions are logged. Any thread.
    void post(std::function<void()> task);

    /// Runs a function that gives a message to the bus library. Its exceptions are passed on; when one means
    /// that the bus is gone, the lost handler is called first.
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
    /// To be called first with an error reply of the bus itself: a peer can send any name.
    void reportIfLost(const sdbus::Error& error);

    /// Returns when all that was sent has been written to the bus, or at the deadline.
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
    bool isClosed_ = false; // the bus library has nothing more to handle
    std::shared_ptr<Event> written_;
    std::shared_ptr<BusConnection*> self_; // what handlers of the loop hold weakly
};

} // namespace Common
