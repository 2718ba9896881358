#pragma once

#include "common/Names.h"
#include "common/bus/Loop.h"

#include <sdbus-c++/sdbus-c++.h>

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Common {

class SignalSource;

/// A bus connection driven by the loop: handles incoming messages and call time-outs, and writes queued
/// messages. After a loss it can reconnect, with its signal sources and remote objects. Loop's thread only.
class BusConnection {
public:
    using LostHandler = std::function<void(const sdbus::Error&)>;
    using Connect = std::function<std::shared_ptr<sdbus::IConnection>()>;

    /// @param connection  must have no other event loop. Waiting coroutines hold messages, which must not
    ///                    outlive the connection: each such coroutine shares its ownership.
    /// @param lost        called when the connection is lost. It must not destroy this object.
    /// Throws std::system_error when no descriptors are available.
    BusConnection(Loop& loop, std::shared_ptr<sdbus::IConnection> connection, LostHandler lost);
    ~BusConnection();
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    [[nodiscard]] Loop& loop() { return loop_; }
    [[nodiscard]] sdbus::IConnection& bus() const { return *sharedBus(); }
    /// The same, for coroutines that hold messages.
    [[nodiscard]] const std::shared_ptr<sdbus::IConnection>& sharedBus() const;

    /// From now on reconnects after a loss: at once, and if that fails after pauses of 1 s to 30 s, which
    /// calls that need the connection shorten. It and its signal sources must live as long as the loop runs.
    /// @param connect      opens a connection; runs on a helper thread
    /// @param reconnected  called before the first message of the new connection is handled; the lost one is
    ///                     closed after it. It must not send. Its exceptions end the loop.
    void reconnectWith(Connect connect, std::function<void()> reconnected);
    /// While the connection is lost, waits for the end of an attempt to reconnect or for the deadline.
    [[nodiscard]] asio::awaitable<void> awaitConnection(TimePoint deadline);

    /// Whether this connection is the present one, and is not lost.
    [[nodiscard]] bool isConnected(const std::shared_ptr<sdbus::IConnection>& connection) const;

    /// Posts a task, which may send messages, to the loop. Its exceptions are logged. Any thread; after
    /// reconnectWith() the loop's only. A reconnection drops tasks.
    void post(std::function<void()> task);

    /// Runs a function that sends a message. Its exceptions are passed on; if one means that the connection
    /// is lost, the lost handler is called first. Throws sdbus::Error while the connection is lost.
    template<typename Send>
    void send(const Send& give) {
        send(sharedBus(), give);
    }
    /// The same for a message that belongs to a connection, which may be a lost one: that is an error, too.
    template<typename Send>
    void send(const std::shared_ptr<sdbus::IConnection>& connection, const Send& give) {
        requireConnected(connection);
        try {
            give();
        } catch (const sdbus::Error& error) {
            reportIfLost(error);
            throw;
        }
        watchOutput();
    }
    /// Reports the connection lost if the error means that. Only for errors of the bus itself: a peer can
    /// send any error name.
    void reportIfLost(const sdbus::Error& error);

    /// Calls a method of the bus itself; blocks. Any thread that owns the connection. Throws sdbus::Error for
    /// an error reply and a reply from any other sender: a client of the bus can reply to any call.
    template<typename Result, typename... Arguments>
    [[nodiscard]] static Result ask(sdbus::IConnection& connection, const std::string& method,
                                    const Arguments&... arguments) {
        namespace Bus = Names::MessageBus;
        const auto object = sdbus::createProxy(connection, Bus::service, Bus::objectPath);
        auto question = object->createMethodCall(Bus::interface, method);
        static_cast<void>((question << ... << arguments));
        auto reply = object->callMethod(question);
        if (reply.getSender() != Bus::service) {
            throw sdbus::Error("org.freedesktop.DBus.Error.AccessDenied", "the reply is not from the bus");
        }
        Result result{};
        reply >> result;
        return result;
    }

    /// Returns when all queued messages have been written to the bus, or at the deadline.
    [[nodiscard]] asio::awaitable<void> flushed(TimePoint deadline);

private:
    friend class RemoteObject;
    friend class SignalSource;
    class Link;
    struct NewConnection;
    using Attempt = Loop::Job<std::function<NewConnection()>>;
    /// A method call without a reply yet.
    struct Call {
        explicit Call(BusConnection& connection)
            : bus(connection.sharedBus())
            , ended(connection.loop().context()) {}
        std::shared_ptr<sdbus::IConnection> bus; // outlives the reply
        Event ended;
        sdbus::MethodReply reply;
        std::optional<sdbus::Error> error;
    };

    void requireConnected(const std::shared_ptr<sdbus::IConnection>& connection) const;
    void watchOutput();
    void reportLoss(const sdbus::Error& error);
    void failCalls();
    asio::awaitable<void> reconnect();
    [[nodiscard]] std::shared_ptr<Attempt> beginAttempt();
    void adopt(Attempt& attempt);

    Loop& loop_;
    LostHandler lost_;
    Connect connect_;
    std::function<void()> reconnected_;
    std::set<std::shared_ptr<Call>> calls_;
    std::vector<SignalSource*> sources_;
    std::optional<sdbus::Error> loss_; // while there is no connection
    std::shared_ptr<Event> attempted_; // the end of the present or next attempt to reconnect
    std::shared_ptr<Event> retry_;     // ends the pause between two attempts
    std::shared_ptr<Link> link_;
};

} // namespace Common
