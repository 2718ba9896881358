#pragma once

#include "client/Records.h"

#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Vendara {

/// There is no session bus, or the service is not running and cannot be started, or it left the bus or lost
/// an operation, whose result is then unknown.
class ServiceAbsent : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The service refused a call: its sentence. Or its reply is not of its interface, or an argument is not
/// valid UTF-8.
class CallRefused : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A signal of the system arrived.
class Interrupted : public std::exception {
public:
    explicit Interrupted(int signal)
        : signal_(signal) {}
    [[nodiscard]] int signal() const { return signal_; }
    [[nodiscard]] const char* what() const noexcept override { return "interrupted"; }

private:
    int signal_;
};

/// Is called while a function of Client runs, on its thread; must not call the client. What it throws leaves
/// that function.
class Listener {
public:
    virtual ~Listener() = default;

    /// An operation that is followed has a new status.
    virtual void changed(const Operation&) {}
    /// The service no longer lists the operation, and its result is not known.
    virtual void lost(const Operation&) {}
    /// An upgrade is still waiting for its application to end. Once per operation.
    virtual void waits(const Operation&) {}
    /// An operation that is not followed ended; the service reports it this once.
    virtual void earlier(const Operation&) {}
    /// A package was changed, regardless of who requested it.
    virtual void installed(const Package&) {}
    virtual void upgraded(const Package&) {}
    virtual void removed(const std::string& /*packageId*/) {}
    /// The service is on the bus, or has left it.
    virtual void serviceChanged(bool /*present*/) {}
    /// Ten times a second in Client::follow(), until it returns false.
    virtual bool tick() { return false; }
};

/// Client of the service, on one session-bus connection. It follows the operations that it requests by the
/// service's signals and, since one may be missed, by asking the service when none arrives. Signals are
/// believed only from the owner of the service's name. The bus starts the service if it is not running.
///
/// One thread. Every function throws ServiceAbsent, CallRefused for an error reply, and Interrupted; after
/// another exception than CallRefused only pending() may be called.
class Client {
public:
    /// Connects and subscribes.
    /// @param signals  of the system, end the function that is running with Interrupted; those that the
    ///                 program was started to ignore do not
    /// Throws std::system_error when the system has no descriptors left.
    explicit Client(Listener& listener, const std::vector<int>& signals = {});
    /// The same without a listener; follow() throws ServiceAbsent when an operation is lost.
    /// @param changed  called as Listener::changed() and Listener::earlier() are; may be empty
    explicit Client(std::function<void(const Operation&)> changed = {});
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// @param path  of a package file; a relative one begins in the working directory
    /// @return the operation, followed from now on: an installation, or an upgrade of what is installed
    Operation install(const std::string& path);
    Operation remove(const std::string& packageId);
    /// Starts the application of an installed package.
    void start(const std::string& packageId);
    /// Ends the application and starts it again, after an upgrade that waits for its end.
    void restart(const std::string& packageId);
    /// The completed operations are reported once. A service that does not reply to a ping delays this by a
    /// second, and with completed operations by two.
    Properties properties();

    /// Follows an operation that another connection of this application requested. Its statuses are sent to
    /// that connection, so the client asks for them. When the operation is no longer listed, the announcement
    /// of its package's change means that it finished.
    /// @param operation  from properties()
    void attach(const Operation& operation);
    /// The operations that are followed and have not ended.
    [[nodiscard]] std::vector<Operation> pending() const;
    /// Waits until all operations that are followed have ended, and up to a second for a reply of the service
    /// that shows that it knows.
    /// @return whether none of them, since the client was made, failed or was lost
    [[nodiscard]] bool follow();

    /// Handles signals until an exception ends it.
    [[noreturn]] void listen();

private:
    class Session;
    static std::unique_ptr<Session> connect(Listener& listener, const std::vector<int>& signals);

    std::unique_ptr<Listener> listener_; // where the program has none
    std::unique_ptr<Session> session_;
};

} // namespace Vendara
