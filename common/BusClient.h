#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Common {

enum class Bus { Session, System };

/// Where a service answers: its bus, well-known name, object path and interface.
struct BusEndpoint {
    Bus bus;
    std::string service;
    std::string objectPath;
    std::string interface;
};

/// One signal to receive and what to do with it.
struct BusSubscription {
    std::string signal;
    std::function<void(sdbus::Signal&)> handler;
};

/// A proxy of a remote object on a bus connection of its own, with the thread that runs the connection's
/// loop.
///
/// Replies are delivered by the loop thread, and so are signals: a handler that waits for a reply must wait
/// for that of another BusClient. When the bus goes away the loop ends with one error line; calls that are
/// pending get their error then, later ones get theirs at once.
///
/// call() may be called by any thread, at the same time, except from a signal handler of the same object.
/// Construction, start() and destruction belong to the owner.
class BusClient {
public:
    /// Connects and makes the proxy. Throws sdbus::Error.
    explicit BusClient(BusEndpoint endpoint);
    /// Stops the loop and joins its thread; a handler that is running is waited for.
    ~BusClient();
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    /// Subscribes and starts the loop; to be called once, before the first call(). A handler's exception is
    /// logged and goes no further. Throws sdbus::Error when the bus refuses a subscription; the loop is then
    /// not running, and nothing but destruction is allowed.
    void start(const std::vector<BusSubscription>& subscriptions = {});

    /// Calls a method of the interface and waits for the reply.
    /// @param timeout  how long to wait; zero means the bus library's default (25 s)
    /// Throws sdbus::Error: the error reply, a time-out, or a connection that is gone.
    template<typename... Arguments>
    sdbus::MethodReply call(const std::string& method, std::chrono::microseconds timeout,
                            const Arguments&... arguments) {
        auto message = proxy_->createMethodCall(endpoint_.interface, method);
        static_cast<void>((message << ... << arguments));
        return proxy_->callMethod(message, static_cast<std::uint64_t>(timeout.count()));
    }

private:
    void startLoop();
    void runLoop() noexcept;

    BusEndpoint endpoint_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;
    std::thread loop_;
};

} // namespace Common
