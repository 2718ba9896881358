#pragma once

#include "common/BusClient.h"
#include "core/TaskQueue.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Core {

/// Starts and restarts applications through the runtime manager service.
///
/// A restart ends the application now; the start follows when the runtime manager reports the end or, where
/// an upgrade of the package is prepared, when the package manager reports the upgrade. Those reports arrive
/// on threads that must not wait, so the starts that they cause are made by a thread of this class. Nobody
/// calls the runtime manager while holding the lock of the restart lists.
class LaunchControl {
public:
    /// Subscribes to "Terminated".
    /// @param intents  the runtime manager's intents object, not started
    /// @param control  its control object, not started
    /// Throws sdbus::Error, name "norvane.Vendara.Error", when the subscription is refused.
    LaunchControl(std::unique_ptr<Common::BusClient> intents, std::unique_ptr<Common::BusClient> control);
    /// Makes the starts that are due, then ends the thread.
    ~LaunchControl() = default;
    LaunchControl(const LaunchControl&) = delete;
    LaunchControl& operator=(const LaunchControl&) = delete;

    /// Has the runtime manager start the application. Waits up to the bus library's default time-out (25 s).
    /// Any thread but the two clients' own. Throws sdbus::Error, name "norvane.Vendara.Error".
    void startApplication(const std::string& packageId);

    /// Has the runtime manager end the application and remembers to start it again, also when ending it
    /// fails. Waits and throws as startApplication() does, and throws std::filesystem::filesystem_error when
    /// the package database cannot be searched; nothing is done then.
    void restartApplication(const std::string& packageId);

    /// Starts the application, if its restart waits for this upgrade. Returns at once. Any thread.
    void packageUpgraded(const std::string& packageId);

private:
    void terminated(sdbus::Signal& signal);
    void startAgain(std::vector<std::string>& waiting, const std::string& packageId);
    void remember(const std::string& packageId);

    std::mutex lock_; // guards the two lists and the counter
    std::vector<std::string> afterTermination_;
    std::vector<std::string> afterUpgrade_;
    std::uint64_t upgrades_ = 0;
    std::unique_ptr<Common::BusClient> intents_;
    TaskQueue<std::string> starts_;
    // Last: its signals use all of the above.
    std::unique_ptr<Common::BusClient> control_;
};

} // namespace Core
