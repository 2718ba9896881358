#include "testbed/ScriptedPeers.h"

#include "testbed/WaitUntil.h"

#include <algorithm>
#include <future>
#include <stdexcept>

void Common::PrintTo(const OperationRecord& operation, std::ostream* output) {
    *output << operation.id << " of " << operation.packageId << ": type " << static_cast<int>(operation.type)
            << ", status " << static_cast<int>(operation.status) << ", error "
            << static_cast<int>(operation.errorCode);
}

namespace Testbed {

namespace {

using Dictionary = std::map<std::string, sdbus::Variant>;
using sdbus::Result;

} // namespace

bool ScriptedPeer::answer(const std::string& method, const std::string& errorName) {
    Reply reply;
    {
        const std::lock_guard guard(lock_);
        auto& held = methods_[method].held;
        if (held.empty()) {
            return false;
        }
        reply = std::move(held.front());
        held.erase(held.begin());
    }
    reply(errorName);
    return true;
}

void ScriptedPeer::releaseCalls() {
    for (const auto* method :
         {"Install", "Remove", "GetPackageList", "InvokeIntent", "Terminate", "IdentifyByBusName"}) {
        hold(method, false);
        try {
            while (answer(method)) {
            }
        } catch (const sdbus::Error&) {
            // The test has killed the bus.
        }
    }
}

bool ScriptedPeer::waitForCalls(const std::string& method, std::size_t count) const {
    return waitUntil([&] { return calls(method).size() >= count; });
}

std::vector<std::string> ScriptedPeer::calls(const std::string& method) const {
    const std::lock_guard guard(lock_);
    const auto entry = methods_.find(method);
    return entry == methods_.end() ? std::vector<std::string>() : entry->second.calls;
}

std::size_t ScriptedPeer::mostHeld() const {
    const std::lock_guard guard(lock_);
    return mostHeld_;
}

void ScriptedPeer::handle(const std::string& method, const std::string& argument, Reply reply) {
    const std::lock_guard guard(lock_);
    auto& script = methods_[method];
    script.calls.push_back(argument);
    if (script.isWrong) {
        const auto* call = peer_.object().getCurrentlyProcessedMessage();
        auto wrong = static_cast<const sdbus::MethodCall*>(call)->createReply();
        wrong << std::uint32_t{7};
        wrong.send();
    } else if (script.holds) {
        script.held.push_back(std::move(reply));
        mostHeld_ = std::max(mostHeld_, script.held.size());
    } else {
        reply(script.refusal);
    }
}

PackageManager::PackageManager()
    : ScriptedPeer(sdbus::createSystemBusConnection("norvane.ZUL"), "norvane.ZUL", "/norvane/ZUL",
                   "norvane.ZUL") {
    peer_.on(interface_, "Install",
             [this](Result<>&& result, const std::string& path, const Dictionary& options) {
                 called("Install", path + (options.empty() ? "" : " with options"), std::move(result));
             });
    peer_.on(interface_, "Remove",
             [this](Result<>&& result, const std::string& id) { called("Remove", id, std::move(result)); });
    peer_.on(interface_, "GetPackageList", [this](Result<std::vector<Common::PackageProperties>>&& result) {
        called("GetPackageList", {}, std::move(result),
               [this](auto& reply) { reply.returnResults(packages()); });
    });
    peer_.start();
}

void PackageManager::setPackages(std::vector<Common::PackageProperties> packages) {
    const std::lock_guard guard(packagesLock_);
    packages_ = std::move(packages);
}

std::vector<Common::PackageProperties> PackageManager::packages() const {
    const std::lock_guard guard(packagesLock_);
    return packages_;
}

Common::PackageProperties PackageManager::package(const std::string& id, const std::string& version) {
    return {{"general.id", id},
            {"general.version", version},
            {"certificate.subgroup", "group"},
            {"certificate.id", "certificate"}};
}

RuntimeManager::RuntimeManager()
    : ScriptedPeer(sdbus::createSessionBusConnection("norvane.RuntimeManager"), "norvane.RuntimeManager",
                   "/norvane/RuntimeManager/Control1", "norvane.RuntimeManager.Control1")
    , intents_(sdbus::createObject(peer_.connection(), "/norvane/RuntimeManager/Intents1")) {
    peer_.on(interface_, "Terminate", [this](Result<>&& result, const std::string& id) {
        called("Terminate", id, std::move(result));
    });
    intents_->registerMethod("InvokeIntent")
        .onInterface("norvane.RuntimeManager.Intents1")
        .implementedAs([this](Result<>&& result, const std::string& intent, const Dictionary& hints,
                              const Dictionary& parameters) {
            const bool asAgreed = hints.size() == 1 && parameters.empty();
            const auto handler = asAgreed ? hints.at("preferredHandler").get<std::string>() : "?";
            called("InvokeIntent", intent + " " + handler, std::move(result));
        });
    intents_->finishRegistration();
    peer_.start();
}

Identification::Identification()
    : ScriptedPeer(sdbus::createSessionBusConnection("norvane.am"), "norvane.am", "/norvane/am",
                   "norvane.am.Identify") {
    peer_.on(interface_, "IdentifyByBusName",
             [this](Result<std::string, std::string>&& result, const std::string& busName) {
                 called("IdentifyByBusName", busName, std::move(result), [this, busName](auto& reply) {
                     const auto application = applicationOf(busName);
                     if (application.empty()) {
                         reply.returnError(sdbus::Error("norvane.am.Error", "no connection has this name"));
                     } else {
                         reply.returnResults(application, "user");
                     }
                 });
             });
    peer_.start();
}

void Identification::set(const std::string& busName, const std::string& application) {
    const std::lock_guard guard(applicationsLock_);
    applications_[busName] = application;
}

std::string Identification::applicationOf(const std::string& busName) const {
    const std::lock_guard guard(applicationsLock_);
    const auto entry = applications_.find(busName);
    return entry == applications_.end() ? busName : entry->second;
}

Client::Client()
    : proxy_(sdbus::createProxy(peer_.connection(), "norvane.Vendara", "/norvane/Vendara")) {
    // The service's own time limit is close to the bus library's.
    peer_.connection().setMethodCallTimeout(std::chrono::minutes(1));
    const auto subscribe = [this](const std::string& signal, const auto& handle) {
        proxy_->uponSignal(signal).onInterface("norvane.Vendara").call(handle);
    };
    const auto note = [this](const std::string& text) {
        const std::lock_guard guard(lock_);
        packageSignals_.push_back(text);
        events_.push_back(text);
    };
    subscribe("OperationStatusChanged", [this](const Operation& operation) {
        const std::lock_guard guard(lock_);
        received_.push_back(operation);
        const int status = static_cast<int>(operation.status);
        statuses_[operation.id].push_back(status);
        events_.push_back(std::to_string(status));
    });
    using Package = Common::PackageRecord;
    subscribe("PackageInstalled", [note](const Package& package) { note("installed " + package.id); });
    subscribe("PackageUpgraded", [note](const Package& package) { note("upgraded " + package.id); });
    subscribe("PackageRemoved", [note](const std::string& id) { note("removed " + id); });
    proxy_->finishRegistration();
    // A call made before the loop runs would have its reply overtake signals, so the loop delivers one first.
    auto running = std::make_shared<std::promise<void>>();
    proxy_->callMethodAsync("Ping")
        .onInterface("org.freedesktop.DBus.Peer")
        .uponReplyInvoke([running](const sdbus::Error* /*error*/) { running->set_value(); });
    peer_.start();
    // Longer than the call may take.
    if (running->get_future().wait_for(std::chrono::minutes(1)) != std::future_status::ready) {
        throw std::runtime_error("the bus does not answer");
    }
}

std::vector<Client::Operation> Client::operations(const std::string& key) {
    return call<Properties>("GetAllProperties").at(key).get<std::vector<Operation>>();
}

Client::Operation Client::ended(Operation operation, Common::ErrorCode errorCode) {
    using enum OperationStatus;
    operation.status = errorCode == Common::ErrorCode::None ? Finished : Failed;
    operation.errorCode = errorCode;
    return operation;
}

void Client::forget() {
    const std::lock_guard guard(lock_);
    received_.clear();
    statuses_.clear();
    events_.clear();
}

std::vector<int> Client::statusesOf(const Operation& operation) const {
    const std::lock_guard guard(lock_);
    const auto statuses = statuses_.find(operation.id);
    return statuses == statuses_.end() ? std::vector<int>() : statuses->second;
}

bool Client::waitForStatus(const Operation& operation, int status) const {
    return waitUntil([&] {
        const auto statuses = statusesOf(operation);
        return !statuses.empty() && statuses.back() == status;
    });
}

bool Client::waitForEvents(std::size_t count) const {
    return waitUntil([&] { return events().size() >= count; });
}

bool isServiceThere(const std::string& name) {
    try {
        sdbus::createProxy(sdbus::createSessionBusConnection(), name, "/norvane/Vendara")
            ->callMethod("Ping")
            .onInterface("org.freedesktop.DBus.Peer");
        return true;
    } catch (const sdbus::Error&) {
        return false;
    }
}

bool waitForService(const std::string& name) {
    return waitUntil([&] { return isServiceThere(name); });
}

} // namespace Testbed
