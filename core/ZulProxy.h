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

/// Client of the package manager service, with its own connection to the system bus, which reconnects after a
/// loss.
///
/// Signals are accepted only from the connection that owns the service's name. Handlers are called in the
/// order in which they were added; add them before the loop runs. Loop's thread only.
class ZulProxy {
public:
    using PackageHandler = std::function<void(const Common::PackageProperties&)>;
    using PackageIdHandler = std::function<void(const std::string&)>;
    using PackageList = std::shared_ptr<const std::vector<Common::PackageProperties>>;

    /// Connects to the system bus and subscribes to the package signals; blocks for the bus. If the bus
    /// refuses a subscription, an error is logged, and the client can make calls but receives no signals.
    /// Later it reconnects only with its subscriptions. Throws sdbus::Error when there is no system bus.
    explicit ZulProxy(Common::Loop& loop);
    ~ZulProxy();
    ZulProxy(const ZulProxy&) = delete;
    ZulProxy& operator=(const ZulProxy&) = delete;

    void addPackageInstalledHandler(PackageHandler handler) { installed_.push_back(std::move(handler)); }
    void addPackageUpgradedHandler(PackageHandler handler) { upgraded_.push_back(std::move(handler)); }
    void addPackageRemovedHandler(PackageIdHandler handler) { removed_.push_back(std::move(handler)); }
    /// The handler is called when the service has started again or may have started again.
    void setAppearedHandler(std::function<void()> handler) { appeared_ = std::move(handler); }

    /// Whether the service runs and has not returned its packages yet.
    [[nodiscard]] bool mayBeRecovering() const {
        return signals_ && signals_->hasOwner() && signals_->owner() != recovered_;
    }

    /// Installs a package file, or prepares an upgrade from it; takes up to 900 s.
    /// Throws, as remove() and getPackageList(), Common::Error with the code of the service's error name and
    /// its text in lower case; code Internal for a lost connection and a time-out.
    [[nodiscard]] asio::awaitable<void> install(std::string packagePath);

    /// Removes a package; takes up to 900 s.
    [[nodiscard]] asio::awaitable<void> remove(std::string packageId);

    /// The installed packages in the service's order, not older than this call. The bus call is sent at once,
    /// even if the result is awaited later. When many calls are pending, further requests share one.
    [[nodiscard]] asio::awaitable<PackageList> getPackageList(Common::TimePoint deadline);

private:
    struct ListCall;

    [[nodiscard]] std::unique_ptr<Common::SignalSource> subscribe();
    void appear();
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
    std::string recovered_; // owner of the service's name that has returned its packages
    std::size_t listCalls_ = 0;
    std::shared_ptr<ListCall> nextList_; // sent when a pending one has ended
    Common::BusConnection connection_;
    std::unique_ptr<Common::SignalSource> signals_; // none if the bus refused them
    Common::RemoteObject service_;
};

} // namespace Core
