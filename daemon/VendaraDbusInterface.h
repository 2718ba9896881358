#pragma once

#include "common/bus/CallerIdentity.h"
#include "common/bus/Lanes.h"
#include "common/bus/WireTypes.h"
#include "core/Controller.h"
#include "daemon/StatusAnnouncer.h"

#include <sdbus-c++/sdbus-c++.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Daemon {

/// The service object: replies to the interface's requests and sends its signals.
///
/// A request that fails gets the error "norvane.Vendara.Error" with a message, at the latest after
/// requestLimit. The requests of one connection are processed in order; those of different connections do not
/// wait for each other. The package manager's signals about one package are relayed in order, an upgrade
/// after the last status of the operations that it completes. Loop's thread only.
class VendaraDbusInterface {
public:
    /// Creates the controller and exports the interface; blocks for the buses. After the first SIGTERM or
    /// SIGINT requests are refused. The loop is stopped when the running operation has ended, the queued ones
    /// have failed and their statuses have been sent.
    /// @param session  owns the service's name; must outlive the object
    /// Throws sdbus::Error for an error reply of a bus.
    VendaraDbusInterface(Common::BusConnection& session, std::string objectPath);
    ~VendaraDbusInterface();
    VendaraDbusInterface(const VendaraDbusInterface&) = delete;
    VendaraDbusInterface& operator=(const VendaraDbusInterface&) = delete;

    /// Exports the interface on the session's new connection instead of the lost one, whose requests get no
    /// replies. Throws as the constructor does.
    void exportAnew();

    /// Less than the 25 s that clients' bus libraries wait for a reply.
    static constexpr std::chrono::seconds requestLimit{24};
    /// Maximum number of waiting requests of one connection, and of all; beyond the latter a connection may
    /// have one.
    static constexpr std::size_t maximumRequests = 20000;
    static constexpr std::size_t maximumRequestsOfAll = 2 * maximumRequests;

private:
    class Adaptor;
    using Properties = std::map<std::string, sdbus::Variant>;
    using PackageListing = asio::awaitable<Core::ZulProxy::PackageList>;
    template<typename... Results>
    struct Reply {
        std::shared_ptr<sdbus::IConnection> bus; // outlives the result's message
        sdbus::Result<Results...> result;
    };
    using OperationReply = Reply<Common::WireOperation>;
    struct Request {
        std::string sender;
        Common::TimePoint deadline;
    };

    using Launch = asio::awaitable<void> (Core::LaunchControl::*)(std::string, Common::TimePoint);
    struct Texts {
        const char* failure; ///< for what has no text of its own
        const char* late; ///< for a request that waited for earlier ones of its connection until its deadline
    };
    template<typename... Results, typename Check>
    void accept(sdbus::Result<Results...>&& result, Texts texts, const Check& check);
    void acceptLaunch(sdbus::Result<>&& result, Texts texts, const std::string& packageID, Launch call);
    template<typename... Results, typename Handler>
    asio::awaitable<void> answer(std::shared_ptr<Reply<Results...>> reply, Texts texts, Request request,
                                 Handler handler);
    template<typename... Results>
    void refuse(const Reply<Results...>& reply, const std::exception_ptr& cause, const char* failure);
    void requireRunning() const;

    asio::awaitable<void> install(OperationReply& reply, Request request, std::string packagePath);
    asio::awaitable<void> remove(OperationReply& reply, Request request, std::string packageID);
    asio::awaitable<void> getAllProperties(Reply<Properties>& reply, Request request);
    asio::awaitable<void> launch(Reply<>& reply, Common::TimePoint deadline, std::string packageID,
                                 Launch call);
    asio::awaitable<Common::CallerIdentity> determineInitiator(std::string sender,
                                                               Common::TimePoint deadline);
    // Packages with incomplete properties are omitted and logged.
    static asio::awaitable<std::vector<Common::PackageRecord>> installedPackages(PackageListing listing);
    static asio::awaitable<void> findInstalledPackage(std::string id, PackageListing listing);
    asio::awaitable<Common::OperationRecord> enqueue(Core::Operation operation, const OperationReply& reply,
                                                     Common::TimePoint deadline);

    void relayPackageSignals();
    void relayPackage(const std::string& signal, const std::string& event,
                      const Common::PackageProperties& properties);
    template<typename Argument>
    void relay(const std::string& packageId, const std::string& signal, const std::string& event,
               const Argument& argument);
    void sendOperationStatus(const Core::Operation& operation);

    asio::awaitable<void> end();

    Common::BusConnection& session_;
    Common::Loop& loop_;
    std::string objectPath_;
    Core::Controller controller_;
    Common::CallerIdentification identification_;
    StatusAnnouncer announcer_;
    Common::Lanes requests_; // by unique name of the caller
    Common::Lanes relays_;   // by package
    bool isEnding_ = false;
    std::unique_ptr<Adaptor> adaptor_;
};

} // namespace Daemon
