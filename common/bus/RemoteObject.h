#pragma once

#include "common/bus/BusConnection.h"
#include "common/bus/SignalSource.h"

#include <memory>
#include <string>
#include <tuple>

namespace Common {

/// Default time limit of a call, the same as the bus library's.
constexpr std::chrono::seconds defaultTimeout{25};

/// Proxy of a service's object for coroutines of the loop, also after its connection has reconnected. Loop's
/// thread only.
class RemoteObject {
public:
    /// @param owner  follows the owner of a well-known name. Only its replies and the bus's are accepted,
    ///               because any client of a session bus can send a reply to any call. Not needed on a bus
    ///               that delivers only requested replies, as the system bus does; must outlive the object
    /// Throws sdbus::Error when a name is not valid.
    RemoteObject(BusConnection& connection, std::string service, std::string objectPath,
                 std::string interface, const SignalSource* owner = nullptr);

    /// Calls a method of the interface and returns its results, of the given types. If the connection is
    /// lost, waits first for an attempt to reconnect.
    /// @param timeout  not 0
    /// Throws sdbus::Error for an error reply, a time-out, a reply of other types or a lost connection.
    template<typename... Results, typename... Arguments>
    [[nodiscard]] asio::awaitable<std::tuple<Results...>>
    call(std::string method, std::chrono::microseconds timeout, Arguments... arguments) {
        const auto deadline = TimePoint::clock::now() + timeout;
        co_await connection_.awaitConnection(deadline);
        const auto sent = send(method, remainingUntil(deadline), arguments...);
        co_await sent->ended.wait();
        if (const auto& error = sent->error) {
            throw sdbus::Error(*error);
        }
        std::tuple<Results...> results;
        std::apply([&](auto&... each) { static_cast<void>((sent->reply >> ... >> each)); }, results);
        co_return results;
    }

private:
    using Call = BusConnection::Call;

    // Destroys the message before it returns: the waiting coroutine may outlive the connection.
    template<typename... Arguments>
    std::shared_ptr<Call> send(const std::string& method, std::chrono::microseconds timeout,
                               const Arguments&... arguments) {
        auto message = proxy().createMethodCall(interface_, method);
        static_cast<void>((message << ... << arguments));
        return send(message, timeout);
    }
    std::shared_ptr<Call> send(const sdbus::MethodCall& message, std::chrono::microseconds timeout);
    void take(Call& call, const std::string& called, sdbus::MethodReply& reply, const sdbus::Error* error);
    [[nodiscard]] std::string expectedSender() const;
    [[nodiscard]] sdbus::IProxy& proxy(); // on the present connection

    BusConnection& connection_;
    std::string service_;
    std::string objectPath_;
    std::string interface_;
    const SignalSource* owner_;
    std::shared_ptr<sdbus::IConnection> bus_; // outlives the proxy
    std::unique_ptr<sdbus::IProxy> proxy_;
};

} // namespace Common
