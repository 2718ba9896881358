#pragma once

#include "common/bus/BusConnection.h"
#include "common/bus/SignalSource.h"

#include <memory>
#include <string>
#include <tuple>

namespace Common {

/// Default time limit of a call, the same as the bus library's.
constexpr std::chrono::seconds defaultTimeout{25};

/// Proxy of a service's object for coroutines of the loop. Loop's thread only.
class RemoteObject {
public:
    /// @param owner  follows the owner of a well-known name. Only its replies and the bus's are accepted,
    ///               because any client of a session bus can send a reply to any call. Not needed on a bus
    ///               that delivers only requested replies, as the system bus does; must outlive the object
    /// Throws sdbus::Error when a name is not valid.
    RemoteObject(BusConnection& connection, const std::string& service, const std::string& objectPath,
                 std::string interface, const SignalSource* owner = nullptr);

    /// Calls a method of the interface and returns its results, of the given types.
    /// @param timeout  not 0
    /// Throws sdbus::Error for an error reply, a time-out, a reply of other types or a lost connection.
    template<typename... Results, typename... Arguments>
    [[nodiscard]] asio::awaitable<std::tuple<Results...>>
    call(std::string method, std::chrono::microseconds timeout, Arguments... arguments) {
        const auto answer = send(method, timeout, arguments...);
        co_await answer->arrived.wait();
        if (const auto& error = answer->error) {
            throw sdbus::Error(*error);
        }
        std::tuple<Results...> results;
        std::apply([&](auto&... each) { static_cast<void>((answer->reply >> ... >> each)); }, results);
        co_return results;
    }

private:
    struct Answer {
        explicit Answer(BusConnection& connection)
            : bus(connection.sharedBus())
            , arrived(connection.loop().context()) {}
        std::shared_ptr<sdbus::IConnection> bus; // outlives the reply
        Event arrived;
        sdbus::MethodReply reply;
        std::optional<sdbus::Error> error;
    };

    // Destroys the message before it returns: the waiting coroutine may outlive the connection.
    template<typename... Arguments>
    std::shared_ptr<Answer> send(const std::string& method, std::chrono::microseconds timeout,
                                 const Arguments&... arguments) {
        auto message = proxy_->createMethodCall(interface_, method);
        static_cast<void>((message << ... << arguments));
        return send(message, timeout);
    }
    std::shared_ptr<Answer> send(const sdbus::MethodCall& message, std::chrono::microseconds timeout);
    [[nodiscard]] std::string expectedSender() const;

    BusConnection& connection_;
    std::string service_;
    std::string interface_;
    const SignalSource* owner_;
    std::unique_ptr<sdbus::IProxy> proxy_;
};

} // namespace Common
