#pragma once

#include "common/bus/RemoteObject.h"
#include "common/bus/SignalSource.h"
#include "common/bus/WireTypes.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Core {

/// Client of the package manager service, with a connection to the system bus of its own. A connection that
/// is lost is made anew, at once and then whenever a call needs it.
///
/// Signals are believed only from the connection that owns the service's name. Handlers are called in the
/// order of adding; they are added while the program is being built. Loop's thread only.
class ZulProxy {
public:
    using PackageHandler = std::function<void(const Common::PackageProperties&)>;
    using PackageIdHandler = std::function<void(const std::string&)>;
    using PackageList = std::shared_ptr<const std::vector<Common::PackageProperties>>;

    /// Connects to the system bus and subscribes to the package signals, waiting for the bus. A bus that
    /// refuses a subscription is an error in the log: the client then makes calls and receives no signals.
    /// Throws sdbus::Error without a system bus.
    explicit ZulProxy(Common::Loop& loop);
    ~ZulProxy();
    ZulProxy(const ZulProxy&) = delete;
    ZulProxy& operator=(const ZulProxy&) = delete;

    void addPackageInstalledHandler(PackageHandler handler) { installed_.push_back(std::move(handler)); }
    void addPackageUpgradedHandler(PackageHandler handler) { upgraded_.push_back(std::move(handler)); }
    void addPackageRemovedHandler(PackageIdHandler handler) { removed_.push_back(std::move(handler)); }
    /// The handler is called when the service has started again, or may have done so.
    void setAppearedHandler(std::function<void()> handler) { appeared_ = std::move(handler); }

    /// Installs a package file, or prepares an upgrade from it; takes up to 900 s.
    /// Throws Common::Error with the code of the service's error name and its text in lower case; a
    /// connection that is gone and a time-out are code Internal. So do remove() and getPackageList().
    [[nodiscard]] asio::awaitable<void> install(std::string packagePath);

    /// Removes a package; takes up to 900 s.
    [[nodiscard]] asio::awaitable<void> remove(std::string packageId);

    /// The installed packages, in the service's order, as they are after this was called. The call is sent
    /// even if the result is awaited later. Requests share a call when many are on their way.
    [[nodiscard]] asio::awaitable<PackageList> getPackageList(Common::TimePoint deadline);

private:
    struct Subscriptions;
    struct Link;
    struct ListCall;

    [[nodiscard]] Subscriptions subscribe();
    void lost(const sdbus::Error& error);
    asio::awaitable<void> reconnect();
    [[nodiscard]] asio::awaitable<Common::RemoteObject*> service(Common::TimePoint deadline);
    template<typename... Arguments>
    asio::awaitable<void> callOperation(std::string method, Arguments... arguments);
    asio::awaitable<void> listPackages(std::shared_ptr<ListCall> call);
    [[nodiscard]] static asio::awaitable<PackageList> packagesOf(std::shared_ptr<ListCall> call,
                                                                 Common::TimePoint deadline);

    Common::Loop& loop_;
    std::vector<PackageHandler> installed_; // handlers, as those below
    std::vector<PackageHandler> upgraded_;
    std::vector<PackageIdHandler> removed_;
    std::function<void()> appeared_;
    std::size_t listCalls_ = 0;
    std::shared_ptr<ListCall> nextList_;        // to be sent when one of those on their way has ended
    std::shared_ptr<Common::Event> connecting_; // while an attempt is made or asked for
    std::shared_ptr<Common::Event> needed_;     // ends the pause between two attempts
    std::unique_ptr<Link> link_;
};

} // namespace Core
