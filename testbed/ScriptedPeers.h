#pragma once

#include "common/bus/WireTypes.h"
#include "testbed/BusPeer.h"

#include <sdbus-c++/sdbus-c++.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace Common {
/// Used by GoogleTest.
void PrintTo(const OperationRecord& operation, std::ostream* output);
} // namespace Common

namespace Testbed {

using Common::OperationStatus;
using Common::OperationType;

/// A service that records its calls and replies at once, or when the test calls answer().
class ScriptedPeer {
public:
    ScriptedPeer(std::unique_ptr<sdbus::IConnection> connection, std::string service, const std::string& path,
                 std::string interface)
        : peer_(std::move(connection), path)
        , service_(std::move(service))
        , interface_(std::move(interface)) {}

    /// Whether calls of the method wait for answer() from now on.
    void hold(const std::string& method, bool held = true) { set(method, &Method::holds, held); }
    /// Calls of the method are refused from now on; an empty error name ends that.
    void refuse(const std::string& method, const std::string& errorName) {
        set(method, &Method::refusal, errorName);
    }
    /// Whether calls of the method get a reply of another type from now on. Not for "InvokeIntent".
    void answerWrongType(const std::string& method, bool wrong = true) {
        set(method, &Method::isWrong, wrong);
    }
    /// Replies to the oldest waiting call; with an error if a name is given. False if no call waits.
    bool answer(const std::string& method, const std::string& errorName = {});
    /// Releases the service's name, and acquires it: both together, like a restart of the service.
    void releaseName() { peer_.connection().releaseName(service_); }
    void takeName() { peer_.connection().requestName(service_); }
    void restart() {
        releaseName();
        takeName();
    }
    /// Replies to all waiting calls and all later ones.
    void releaseCalls();
    [[nodiscard]] bool waitForCalls(const std::string& method, std::size_t count) const;
    /// The arguments of the calls so far, in their order.
    [[nodiscard]] std::vector<std::string> calls(const std::string& method) const;

    /// Maximum number of calls of one method that waited at the same time.
    [[nodiscard]] std::size_t mostHeld() const;

    template<typename... Arguments>
    void emit(const std::string& signal, const Arguments&... arguments) {
        peer_.send(interface_, signal, arguments...);
    }

protected:
    using Reply = std::function<void(const std::string& errorName)>;

    /// A waiting call; its result is computed when the reply is sent.
    template<typename... Results, typename Value>
    void called(const std::string& method, const std::string& argument, sdbus::Result<Results...>&& result,
                Value value) {
        auto shared = std::make_shared<sdbus::Result<Results...>>(std::move(result));
        handle(method, argument, [shared, value](const std::string& errorName) {
            if (errorName.empty()) {
                value(*shared);
            } else {
                shared->returnError(sdbus::Error(errorName, "Refused BY The Test \u00c4"));
            }
        });
    }
    void called(const std::string& method, const std::string& argument, sdbus::Result<>&& result) {
        called(method, argument, std::move(result), [](auto& reply) { reply.returnResults(); });
    }

    BusPeer peer_;
    std::string service_;
    std::string interface_;

private:
    struct Method {
        std::vector<std::string> calls;
        std::vector<Reply> held;
        bool holds = false;
        std::string refusal;
        bool isWrong = false;
    };
    template<typename Value>
    void set(const std::string& method, Value Method::*member, const Value& value) {
        const std::lock_guard guard(lock_);
        methods_[method].*member = value;
    }
    void handle(const std::string& method, const std::string& argument, Reply reply);

    mutable std::mutex lock_;
    std::map<std::string, Method> methods_;
    std::size_t mostHeld_ = 0;
};

/// The package manager.
class PackageManager : public ScriptedPeer {
public:
    PackageManager();
    ~PackageManager() { peer_.stop(); }
    void setPackages(std::vector<Common::PackageProperties> packages);
    static Common::PackageProperties package(const std::string& id, const std::string& version = "1.0-1");

private:
    [[nodiscard]] std::vector<Common::PackageProperties> packages() const;

    mutable std::mutex packagesLock_;
    std::vector<Common::PackageProperties> packages_;
};

/// The runtime manager; its signals are those of the control object. "InvokeIntent" is recorded as the
/// intent, a space and the handler.
class RuntimeManager : public ScriptedPeer {
public:
    RuntimeManager();
    ~RuntimeManager() { peer_.stop(); }

private:
    std::unique_ptr<sdbus::IObject> intents_;
};

/// The identification service: the application of a caller is its bus name unless set() defines another.
class Identification : public ScriptedPeer {
public:
    Identification();
    ~Identification() { peer_.stop(); }
    /// @param application  empty: the bus name has no owner any more
    void set(const std::string& busName, const std::string& application);

private:
    [[nodiscard]] std::string applicationOf(const std::string& busName) const;

    mutable std::mutex applicationsLock_;
    std::map<std::string, std::string> applications_;
};

/// A client of the service that records all received signals.
class Client {
public:
    using Operation = Common::OperationRecord;
    using Properties = std::map<std::string, sdbus::Variant>;

    Client();
    ~Client() { peer_.stop(); }
    [[nodiscard]] std::string busName() { return peer_.connection().getUniqueName(); }

    /// Sends a request and returns the reply; throws an error reply.
    template<typename Reply, typename... Arguments>
    Reply call(const std::string& method, const Arguments&... arguments) {
        Reply reply;
        proxy_->callMethod(method)
            .onInterface("norvane.Vendara")
            .withArguments(arguments...)
            .storeResultsTo(reply);
        return reply;
    }
    Operation install(const std::string& path) { return call<Operation>("Install", path); }
    Operation remove(const std::string& id) { return call<Operation>("Remove", id); }
    std::vector<Operation> operations(const std::string& key = "Operations");
    /// The operation with its final status: Failed with an error code, otherwise Finished.
    static Operation ended(Operation operation, Common::ErrorCode errorCode = {});
    /// The text of the service's error reply, empty when there was none.
    template<typename... Arguments>
    std::string errorOf(const std::string& method, const Arguments&... arguments) {
        try {
            proxy_->callMethod(method).onInterface("norvane.Vendara").withArguments(arguments...);
            return {};
        } catch (const sdbus::Error& error) {
            return error.getName() == "norvane.Vendara.Error" ? error.getMessage() : error.what();
        }
    }

    /// The received statuses of all operations, in order, and those of one operation.
    [[nodiscard]] std::vector<Operation> received() const { return copyOf(received_); }
    void forget();
    [[nodiscard]] std::vector<int> statusesOf(const Operation& operation) const;
    bool waitForStatus(const Operation& operation, int status) const;
    /// The package signals received: member, " ", package id.
    [[nodiscard]] std::vector<std::string> packageSignals() const { return copyOf(packageSignals_); }
    /// Statuses and package signals in the order of their arrival, since forget().
    [[nodiscard]] std::vector<std::string> events() const { return copyOf(events_); }
    [[nodiscard]] bool waitForEvents(std::size_t count) const;

private:
    template<typename Value>
    Value copyOf(const Value& received) const {
        const std::lock_guard guard(lock_);
        return received;
    }

    BusPeer peer_{sdbus::createSessionBusConnection(), "/client"};
    mutable std::mutex lock_;
    std::vector<Operation> received_;
    std::unordered_map<std::string, std::vector<int>> statuses_; // by operation
    std::vector<std::string> packageSignals_;
    std::vector<std::string> events_;
    std::unique_ptr<sdbus::IProxy> proxy_;
};

/// Whether a service replies on the session bus. It acquires its name before it can reply.
[[nodiscard]] bool isServiceThere(const std::string& name = "norvane.Vendara");
/// @return whether it does so within the limit of waitUntil()
[[nodiscard]] bool waitForService(const std::string& name = "norvane.Vendara");

} // namespace Testbed
