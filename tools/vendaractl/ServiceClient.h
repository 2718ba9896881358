#pragma once

#include "common/WireTypes.h"
#include "tools/vendaractl/SignalWatch.h"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Vendaractl {

/// The service is not there: no bus, nobody who owns or can be started for the name, or it left.
class ServiceAbsent : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The service is there and refused a call, or answered something that is not its interface.
class CallRefused : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The service's state as this program sees it.
struct Properties {
    std::string architecture;
    std::string quenraVersion;
    std::vector<Common::OperationRecord> operations;
    std::vector<Common::OperationRecord> completedOperations;
    std::vector<Common::PackageRecord> packages;
};

/// Who is told what happens on the bus. They are called from within ServiceClient's functions; what they
/// throw leaves the function that is running.
struct Listeners {
    std::function<void(const Common::OperationRecord&)> operationChanged;
    std::function<void(const Common::PackageRecord&)> packageInstalled;
    std::function<void(const Common::PackageRecord&)> packageUpgraded;
    std::function<void(const std::string&)> packageRemoved;
    /// The service left the bus (false), or came to it or was replaced (true).
    std::function<void(bool)> serviceChanged;
};

/// Client of the service, on one session-bus connection whose loop the functions below run: everything
/// happens on the calling thread, and signals are heard while a reply is awaited. All functions but the
/// destructor throw ServiceAbsent when the service or the bus is gone, CallRefused for an error reply, and
/// Interrupted when the user ends the program.
class ServiceClient {
public:
    using Answer = std::function<void(const Properties*)>;

    /// Connects, subscribes and has the bus start the service where it is not running.
    explicit ServiceClient(Listeners listeners);
    ~ServiceClient();
    ServiceClient(const ServiceClient&) = delete;
    ServiceClient& operator=(const ServiceClient&) = delete;

    /// @param path  absolute path of a package file
    Common::OperationRecord install(const std::string& path);
    Common::OperationRecord remove(const std::string& packageId);
    void start(const std::string& packageId);
    void restart(const std::string& packageId);
    Properties properties();

    /// Asks for the properties and returns at once; the answer comes within a later process(), with a null
    /// pointer if the service could not tell.
    void askProperties(Answer answer);

    /// Handles what has arrived or, if nothing has, waits for it or for the limit, which is negative for
    /// none.
    void process(std::chrono::milliseconds limit);

private:
    struct Call;

    void subscribe();
    void startService();
    void ownerChanged(const std::string& owner);
    [[nodiscard]] bool isFrom(const std::string& sender, const sdbus::Message& message);
    template<typename Argument>
    void onSignal(const std::string& signal, std::function<void(const Argument&)> listener);
    template<typename... Arguments>
    sdbus::MethodReply call(sdbus::IProxy& proxy, const std::string& interface, const std::string& method,
                            const Arguments&... arguments);
    [[noreturn]] void fail(const sdbus::Error& error) const;
    sdbus::MethodReply await(sdbus::IProxy& proxy, const sdbus::MethodCall& message);
    void guarded(const std::function<void()>& handler) noexcept;

    SignalWatch signals_;
    Listeners listeners_;
    std::string owner_; // unique name of the service's connection; empty: none
    bool forgeryReported_ = false;
    bool started_ = false;  // whether the bus was asked to start the service
    bool answered_ = false; // whether the service has answered anything
    std::exception_ptr failure_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> bus_;
    std::unique_ptr<sdbus::IProxy> service_;
};

} // namespace Vendaractl
