#pragma once

#include "client/Records.h"

#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Vendara {

/// There is no session bus, the service cannot be started, or it left the bus or lost an operation, whose
/// result is then unknown.
class ServiceAbsent : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The service refused a call; the text is its error message. Also thrown for a reply of an unexpected type
/// and for an argument that is not a valid D-Bus string.
class CallRefused : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The process received a signal, see Client::Client().
class Interrupted : public std::exception {
public:
    explicit Interrupted(int signal)
        : signal_(signal) {}
    [[nodiscard]] int signal() const { return signal_; }
    [[nodiscard]] const char* what() const noexcept override { return "interrupted"; }

private:
    int signal_;
};

/// Callbacks, made on the client's thread while one of its functions runs. They must not call the client.
/// Their exceptions are passed on by that function.
class Listener {
public:
    virtual ~Listener() = default;

    /// A followed operation has a new status.
    virtual void changed(const Operation&) {}
    /// The service no longer lists the operation, and its result is unknown.
    virtual void lost(const Operation&) {}
    /// An upgrade is still waiting for its application to end. Once per operation.
    virtual void waits(const Operation&) {}
    /// An operation that is not followed has completed; the service reports it only once.
    virtual void earlier(const Operation&) {}
    /// A package was changed, regardless of who requested it.
    virtual void installed(const Package&) {}
    virtual void upgraded(const Package&) {}
    virtual void removed(const std::string& /*packageId*/) {}
    /// The service has appeared on the bus or has left it.
    virtual void serviceChanged(bool /*present*/) {}
    /// Called ten times a second in Client::follow(), until it returns false.
    virtual bool tick() { return false; }
};

/// Client of the service, on one session-bus connection. It follows the operations that it requests by the
/// service's signals and, because a signal may be missed, queries the service when none arrives. Replies
/// and signals are accepted only from the owner of the service's name. The bus starts the service if it is
/// not running.
///
/// Used by one thread. Every function throws ServiceAbsent, CallRefused for an error reply, and Interrupted;
/// after any other exception than CallRefused only pending() may be called.
class Client {
public:
    /// Connects and subscribes.
    /// @param signals  signal numbers, such as SIGINT, that end the running function with Interrupted; a
    ///                 signal that the process ignores stays ignored
    /// Throws std::system_error when no descriptors are available.
    explicit Client(Listener& listener, const std::vector<int>& signals = {});
    /// The same without a listener; follow() throws ServiceAbsent when an operation is lost.
    /// @param changed  called as Listener::changed() and Listener::earlier() are; may be empty
    explicit Client(std::function<void(const Operation&)> changed = {});
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Queues an installation, or an upgrade of an installed package.
    /// @param path  of a package file; a relative path starts in the working directory
    /// @return the operation, which is followed from now on
    Operation install(const std::string& path);
    /// Queues a removal; otherwise like install().
    Operation remove(const std::string& packageId);
    /// Starts the application of an installed package.
    void start(const std::string& packageId);
    /// Terminates the application and starts it again, after a prepared upgrade is completed.
    void restart(const std::string& packageId);
    /// The service's state. Each completed operation is reported once. If the service does not reply to a
    /// ping, this takes one second longer, with completed operations two.
    Properties properties();

    /// Follows an operation that another connection of this application requested. Its statuses are sent to
    /// that connection, so the client queries them. If the operation is no longer listed and its package was
    /// reported as changed, it is finished.
    /// @param operation  from properties()
    void attach(const Operation& operation);
    /// The followed operations that have not ended.
    [[nodiscard]] std::vector<Operation> pending() const;
    /// Waits until all followed operations have ended and, if the service was queried because no signal had
    /// arrived, until it has replied. Then waits at most one second for a reply that shows that the service
    /// has recorded their ends as reported.
    /// @return whether no operation of this client has failed or was lost
    [[nodiscard]] bool follow();

    /// Handles the service's signals until an exception ends it.
    [[noreturn]] void listen();

private:
    class Session;
    static std::unique_ptr<Session> connect(Listener& listener, const std::vector<int>& signals);

    std::unique_ptr<Listener> listener_; // of the constructor without one
    std::unique_ptr<Session> session_;
};

} // namespace Vendara
