#pragma once

#include "common/bus/RemoteObject.h"
#include "common/bus/SignalSource.h"

#include <deque>
#include <string>

namespace Core {

/// Starts and restarts applications through the runtime manager service.
///
/// A restart ends the application now; the start follows when the runtime manager reports the end or, where
/// an upgrade of the package is prepared, when the package manager reports the upgrade. Each list of restarts
/// that wait holds maximumRestarts; the oldest goes first, with a line in the log. Loop's thread only.
class LaunchControl {
public:
    /// Subscribes to "Terminated", waiting for the bus.
    /// Throws sdbus::Error, name "norvane.Vendara.Error", when the subscription is refused.
    explicit LaunchControl(Common::BusConnection& session);

    /// Has the runtime manager start the application. Throws sdbus::Error, name "norvane.Vendara.Error", when
    /// it refuses or does not answer before the deadline.
    [[nodiscard]] asio::awaitable<void> startApplication(std::string packageId, Common::TimePoint deadline);

    /// Has the runtime manager end the application and remembers to start it again, also when ending it
    /// fails. Throws as startApplication() does, and throws std::filesystem::filesystem_error when the
    /// package database cannot be searched; nothing is done then.
    [[nodiscard]] asio::awaitable<void> restartApplication(std::string packageId, Common::TimePoint deadline);

    /// Starts the application, if its restart waits for this upgrade.
    void packageUpgraded(const std::string& packageId);

    static constexpr std::size_t maximumRestarts = 10000;

private:
    using Restarts = std::deque<std::string>;

    void terminated(sdbus::Message& signal);
    void startAgain(Restarts& waiting, const std::string& packageId);
    asio::awaitable<void> start(std::string packageId);

    Common::Loop& loop_;
    Restarts afterTermination_;
    Restarts afterUpgrade_;
    Common::RemoteObject intents_;
    Common::RemoteObject control_;
    Common::SignalSource signals_;
};

} // namespace Core
