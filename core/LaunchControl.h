#pragma once

#include "common/bus/RemoteObject.h"
#include "common/bus/SignalSource.h"
#include "core/zul/DatabaseLocation.h"

#include <deque>
#include <functional>
#include <optional>
#include <string>

namespace Core {

/// Starts and restarts applications through the runtime manager service.
///
/// A restart terminates the application now. The start follows when the runtime manager reports its end or,
/// if an upgrade of the package is prepared, when the package manager reports the upgrade. If more than
/// maximumRestarts wait for either, the oldest is dropped with a line in the log. An end that is reported
/// while the session bus is reconnected is missed: the start follows the next one. Loop's thread only.
class LaunchControl {
public:
    /// Subscribes to "Terminated"; blocks for the bus.
    /// Throws sdbus::Error, name "norvane.Vendara.Error", when the subscription is refused.
    explicit LaunchControl(Common::BusConnection& session);

    /// Requests the runtime manager to start the application. Throws sdbus::Error, name
    /// "norvane.Vendara.Error", when it refuses or does not reply before the deadline.
    [[nodiscard]] asio::awaitable<void> startApplication(std::string packageId, Common::TimePoint deadline);

    /// Stores the restart and requests the runtime manager to terminate the application. The restart stays
    /// stored if that fails. Throws as startApplication() does, and std::filesystem::filesystem_error, before
    /// anything else is done, when the package database cannot be searched.
    [[nodiscard]] asio::awaitable<void> restartApplication(std::string packageId, Common::TimePoint deadline);

    /// The handler is called with the package when a restart begins to wait for an upgrade.
    void setRestartHandler(std::function<void(const std::string&)> handler) { handler_ = std::move(handler); }

    /// Starts the application if its restart waits for this upgrade.
    void packageUpgraded(const std::string& packageId);

    /// The packages whose restarts wait for an upgrade, in the order of the requests.
    [[nodiscard]] const std::deque<std::string>& restartsAfterUpgrade() const { return afterUpgrade_; }
    /// Ends all restarts that wait for this upgrade: starts the application for each, if it is installed.
    void endRestarts(const std::string& packageId, bool isInstalled);

    /// The package database's location. If its configuration cannot be read this time, the location that was
    /// read last; nothing if there is none.
    [[nodiscard]] const std::optional<ZUL::DatabaseLocation>& database();

    static constexpr std::size_t maximumRestarts = 10000;

private:
    using Restarts = std::deque<std::string>;

    void terminated(sdbus::Message& signal);
    void startAgain(Restarts& waiting, const std::string& packageId);
    asio::awaitable<void> start(std::string packageId);

    Common::Loop& loop_;
    std::optional<ZUL::DatabaseLocation> database_;
    Restarts afterTermination_;
    Restarts afterUpgrade_;
    std::function<void(const std::string&)> handler_;
    Common::SignalSource signals_;
    Common::RemoteObject intents_;
    Common::RemoteObject control_;
};

} // namespace Core
