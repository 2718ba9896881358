#pragma once

#include "common/bus/BusConnection.h"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <sys/types.h>

namespace Devkit {

/// Starts and terminates applications: one process per identifier, in its own session, started by the command
/// in the identifier's desktop entry. Main thread only.
class RuntimeManager {
public:
    struct Settings {
        std::filesystem::path systemRoot;     ///< of desktop entries and programs
        std::chrono::milliseconds patience{}; ///< from SIGTERM to SIGKILL
    };

    /// Puts the two objects on the bus. Throws sdbus::Error, std::system_error.
    RuntimeManager(Common::BusConnection& bus, Settings settings);
    /// Kills the applications that still run.
    ~RuntimeManager();
    RuntimeManager(const RuntimeManager&) = delete;
    RuntimeManager& operator=(const RuntimeManager&) = delete;

private:
    struct Application {
        pid_t process = 0;
        std::uint64_t serial = 0; ///< differs from that of a later one with the same identifier
        bool ending = false;      ///< whether its end was requested
    };

    void invokeIntent(const std::string& intent, const std::map<std::string, sdbus::Variant>& hints);
    void start(const std::string& id);
    void terminate(const std::string& id);
    void killIfStillRunning(const std::string& id, std::uint64_t serial);
    void applicationEnded(const std::string& id, std::uint64_t serial);
    [[nodiscard]] std::vector<std::string> commandFor(const std::string& id) const;

    Common::BusConnection& bus_;
    Settings settings_;
    std::map<std::string, Application> applications_;
    std::uint64_t lastSerial_ = 0;
    std::unique_ptr<sdbus::IObject> control_;
    std::unique_ptr<sdbus::IObject> intents_;
};

} // namespace Devkit
