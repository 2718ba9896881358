#pragma once

#include "common/WireTypes.h"
#include "core/Controller.h"
#include "daemon/MainLoop.h"
#include "daemon/Vendara_adaptor.h"

#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <optional>
#include <string>
#include <vector>

namespace Daemon {

/// The service object: answers the interface's requests on the main thread and sends its signals.
///
/// Every request that fails is answered with the error "norvane.Vendara.Error" and a sentence. Signals have
/// their origin on other threads as well; those hand them to the main loop, which sends them.
class VendaraDbusInterface final : private sdbus::AdaptorInterfaces<norvane::Vendara_adaptor> {
public:
    /// Makes the controller and exports the interface.
    /// @param connection  the service's own, run by the loop; both outlive the object
    /// Throws sdbus::Error when a bus refuses.
    VendaraDbusInterface(sdbus::IConnection& connection, MainLoop& loop, std::string objectPath);
    /// Ends the controller, then sends what its end has announced. Main thread only.
    ~VendaraDbusInterface();
    VendaraDbusInterface(const VendaraDbusInterface&) = delete;
    VendaraDbusInterface& operator=(const VendaraDbusInterface&) = delete;

private:
    Common::OperationRecord Install(const std::string& packagePath) override;
    Common::OperationRecord Remove(const std::string& packageID) override;
    std::map<std::string, sdbus::Variant> GetAllProperties() override;
    void Start(const std::string& packageID) override;
    void Restart(const std::string& packageID) override;

    [[nodiscard]] Common::CallerIdentity determineInitiator();
    [[nodiscard]] std::vector<Common::PackageRecord> getInstalledPackages();
    void findInstalledPackage(const std::string& id);
    [[nodiscard]] Common::OperationRecord enqueue(Core::Operation operation);

    void relayPackageSignals();
    void relayPackage(const std::string& signal, const std::string& event,
                      const Common::PackageProperties& properties);
    template<typename Argument>
    void broadcast(const std::string& signal, const std::string& event, const Argument& argument);

    void notifyOperationStatus(Core::Controller& controller, const Core::Operation& operation);
    void keepUntold(Core::Controller& controller, const Core::Operation& operation);
    [[nodiscard]] bool isOnBus(const std::string& busName);
    void sendOperationStatus(const Core::Operation& operation);

    sdbus::IConnection& connection_;
    MainLoop& loop_;
    std::atomic<bool> ending_ = false;
    std::optional<Core::Controller> controller_;
};

} // namespace Daemon
