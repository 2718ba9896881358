#pragma once

#include "common/Names.h"
#include "common/bus/WireTypes.h"
#include "testbed/BusPeer.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Testbed {

namespace Own = Common::Names::Vendara;

/// The script for one package: the statuses that are signalled, all before the reply, and the state of the
/// operation in the service's properties.
struct Script {
    std::vector<int> statuses{0};
    int errorCode = 0;
    bool completed = false; ///< reported once as completed, without a signal
    bool known = false;     ///< reported as an operation in progress
    std::string refusal{};  ///< the call fails with this text
    std::function<void()> called{};
};

/// The service's interface on the session bus, with scripted operations. Read the recorded requests only
/// after the client's call has returned.
class ScriptedService {
public:
    /// @param scripts  by package identifier; for an installation by the file's name
    explicit ScriptedService(std::map<std::string, Script> scripts)
        : scripts_(std::move(scripts)) {
        for (const auto& method : {Own::install, Own::remove}) {
            peer_.on(Own::interface, method, [this](const std::string& argument) { return begin(argument); });
        }
        for (const auto& method : {Own::start, Own::restart}) {
            peer_.on(Own::interface, method, [this](const std::string& argument) { begin(argument); });
        }
        peer_.on(Own::interface, Own::getAllProperties, [this] { return properties(); });
        peer_.connection().addMatch(
            "type='method_call',member='Ping'",
            [this](sdbus::Message& /*ping*/) {
                ++pings;
                onPing();
            },
            sdbus::floating_slot);
        peer_.start();
    }

    BusPeer& peer() { return peer_; }
    std::vector<std::string> requests; ///< received paths and identifiers
    std::string client;                ///< the connection that sent the last request
    std::atomic<int> propertyReads = 0;
    std::atomic<int> pings = 0;
    std::function<void()> onPing = [] {};      ///< set it before a client connects
    std::atomic<bool> hidesOperations = false; ///< lists no operations in progress
    std::atomic<bool> refusesOnce = false;     ///< refuses the next read of the properties

    static Common::OperationRecord operation(const std::string& package, int status, int error) {
        return {"id of " + package,
                package,
                {},
                static_cast<Common::OperationStatus>(status),
                static_cast<Common::ErrorCode>(status == 101 ? error : 0)};
    }
    static Common::PackageRecord package(const std::string& id) {
        return {id, "1.0-1", "apps", "cert", {{"size", 7U}}};
    }

private:
    Common::OperationRecord begin(const std::string& argument) {
        const auto name = std::filesystem::path(argument).filename().string();
        requests.push_back(argument);
        client = peer_.object().getCurrentlyProcessedMessage()->getSender();
        const auto& script = scripts_.at(name);
        if (script.called) {
            script.called();
        }
        if (!script.refusal.empty()) {
            throw sdbus::Error(Own::error, script.refusal);
        }
        for (const int status : script.statuses) {
            auto signal = peer_.object().createSignal(Own::interface, Own::operationStatusChanged);
            signal << operation(name, status, script.errorCode);
            signal.setDestination(client);
            signal.send();
        }
        return operation(name, 0, 0);
    }

    std::map<std::string, sdbus::Variant> properties() {
        ++propertyReads;
        if (refusesOnce.exchange(false)) {
            throw sdbus::Error(Own::error, "Failed to retrieve list of installed packages");
        }
        std::vector<Common::OperationRecord> going;
        std::vector<Common::OperationRecord> completed;
        for (auto& [package, script] : scripts_) {
            if (std::exchange(script.completed, false)) {
                completed.push_back(operation(package, script.errorCode == 0 ? 100 : 101, script.errorCode));
            } else if (script.known && !hidesOperations) {
                going.push_back(operation(package, 10, 0));
            }
        }
        return {{Own::architecture, sdbus::Variant("aarch64")},
                {Own::quenraVersion, sdbus::Variant("\"4.2\"")},
                {Own::operations, sdbus::Variant(going)},
                {Own::completedOperations, sdbus::Variant(completed)},
                {Own::packages, sdbus::Variant(std::vector{package("com.example.one")})}};
    }

    std::map<std::string, Script> scripts_;
    BusPeer peer_{sdbus::createSessionBusConnection(Own::service), Own::objectPath};
};

} // namespace Testbed
