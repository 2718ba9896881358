#pragma once

#include "common/BusClient.h"
#include "common/WireTypes.h"

#include <functional>
#include <string>
#include <vector>

namespace Core {

/// Client of the package manager service on the system bus. Its signals arrive on one connection and its
/// calls are made on another, so that a handler that waits never stands in the way of a reply.
///
/// The calls may be made by any thread, at the same time. Handlers run on the signal connection's loop
/// thread, in the order of adding; they are added while the program is being built, before start().
class ZulProxy {
public:
    using PackageHandler = std::function<void(const Common::PackageProperties&)>;
    using PackageIdHandler = std::function<void(const std::string&)>;

    /// Connects to the system bus. Throws sdbus::Error.
    ZulProxy();

    void addPackageInstalledHandler(PackageHandler handler);
    void addPackageUpgradedHandler(PackageHandler handler);
    void addPackageRemovedHandler(PackageIdHandler handler);

    /// Subscribes to the package signals. A bus that refuses is an error in the log: the client then makes
    /// calls and receives no signals.
    void start();

    /// Installs a package file, or prepares an upgrade from it. Waits up to 900 s.
    /// Throws Common::Error with the code of the service's error name and its text in lower case; a
    /// connection that is gone and a time-out are code Internal. So do remove() and getPackageList().
    void install(const std::string& packagePath);

    /// Removes a package. Waits up to 900 s.
    void remove(const std::string& packageId);

    /// The installed packages, in the service's order. Waits up to the bus library's default (25 s).
    [[nodiscard]] std::vector<Common::PackageProperties> getPackageList();

private:
    Common::BusClient calls_;
    std::vector<PackageHandler> packageInstalledHandlers_;
    std::vector<PackageHandler> packageUpgradedHandlers_;
    std::vector<PackageIdHandler> packageRemovedHandlers_;
    // Last: its thread ends before the handlers that it calls.
    Common::BusClient signals_;
};

} // namespace Core
