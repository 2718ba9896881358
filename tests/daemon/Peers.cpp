#include "tests/daemon/Peers.h"

#include "tests/support/WaitUntil.h"

#include <future>

namespace Testbed {

namespace {

using Dictionary = std::map<std::string, sdbus::Variant>;
using sdbus::Result;

} // namespace

Peer::Peer(bool onSystemBus, const std::string& name)
    : name_(name)
    , connection_(onSystemBus ? sdbus::createSystemBusConnection() : sdbus::createSessionBusConnection()) {
    if (!name.empty()) {
        connection_->requestName(name);
    }
    std::promise<void> ready;
    thread_ = std::thread([this, &ready] {
        try {
            if (isClient()) {
                ready.set_value();
                connection_->enterEventLoop();
            } else {
                loop_ = std::make_unique<Daemon::MainLoop>(*connection_);
                ready.set_value();
                loop_->run();
            }
        } catch (const sdbus::Error&) {
            // The test has killed the bus.
        }
    });
    ready.get_future().wait();
}

void Peer::leave() {
    if (thread_.joinable()) {
        isClient() ? connection_->leaveEventLoop() : loop_->stop();
        thread_.join();
    }
}

void ScriptedPeer::exportObject(const std::string& path, const std::string& interface) {
    interface_ = interface;
    object_ = sdbus::createObject(peer_.connection(), path);
}

void ScriptedPeer::hold(const std::string& method, bool held) {
    const std::lock_guard guard(lock_);
    methods_[method].holds = held;
}

void ScriptedPeer::refuse(const std::string& method, const std::string& errorName) {
    const std::lock_guard guard(lock_);
    methods_[method].refusal = errorName;
}

bool ScriptedPeer::answer(const std::string& method, const std::string& errorName) {
    const std::lock_guard guard(lock_);
    auto& held = methods_[method].held;
    if (held.empty()) {
        return false;
    }
    held.front()(errorName);
    held.erase(held.begin());
    return true;
}

bool ScriptedPeer::waitForCalls(const std::string& method, std::size_t count) const {
    return waitUntil([&] { return calls(method).size() >= count; });
}

std::vector<std::string> ScriptedPeer::calls(const std::string& method) const {
    const std::lock_guard guard(lock_);
    const auto entry = methods_.find(method);
    return entry == methods_.end() ? std::vector<std::string>() : entry->second.calls;
}

void ScriptedPeer::handle(const std::string& method, const std::string& argument, Reply reply) {
    const std::lock_guard guard(lock_);
    auto& script = methods_[method];
    script.calls.push_back(argument);
    if (script.holds) {
        script.held.push_back(std::move(reply));
    } else {
        reply(script.refusal);
    }
}

PackageManager::PackageManager()
    : ScriptedPeer(true, "norvane.ZUL") {
    exportObject("/norvane/ZUL", "norvane.ZUL");
    object_->registerMethod("Install")
        .onInterface(interface_)
        .implementedAs([this](Result<>&& result, const std::string& path, const Dictionary& /*options*/) {
            called("Install", path, std::move(result));
        });
    object_->registerMethod("Remove")
        .onInterface(interface_)
        .implementedAs(
            [this](Result<>&& result, const std::string& id) { called("Remove", id, std::move(result)); });
    object_->registerMethod("GetPackageList")
        .onInterface(interface_)
        .implementedAs([this](Result<std::vector<Common::PackageProperties>>&& result) {
            called("GetPackageList", {}, std::move(result), [this](auto& reply) {
                const std::lock_guard guard(packagesLock_);
                reply.returnResults(packages_);
            });
        });
    object_->finishRegistration();
}

void PackageManager::setPackages(std::vector<Common::PackageProperties> packages) {
    const std::lock_guard guard(packagesLock_);
    packages_ = std::move(packages);
}

Common::PackageProperties PackageManager::package(const std::string& id, const std::string& version) {
    return {{"general.id", id},
            {"general.version", version},
            {"certificate.subgroup", "group"},
            {"certificate.id", "certificate"}};
}

RuntimeManager::RuntimeManager()
    : ScriptedPeer(false, "norvane.RuntimeManager")
    , intents_(sdbus::createObject(peer_.connection(), "/norvane/RuntimeManager/Intents1")) {
    exportObject("/norvane/RuntimeManager/Control1", "norvane.RuntimeManager.Control1");
    object_->registerMethod("Terminate")
        .onInterface(interface_)
        .implementedAs(
            [this](Result<>&& result, const std::string& id) { called("Terminate", id, std::move(result)); });
    object_->finishRegistration();
    intents_->registerMethod("InvokeIntent")
        .onInterface("norvane.RuntimeManager.Intents1")
        .implementedAs([this](Result<>&& result, const std::string& intent, const Dictionary& hints,
                              const Dictionary& parameters) {
            const bool asAgreed = hints.size() == 1 && parameters.empty();
            const auto handler = asAgreed ? hints.at("preferredHandler").get<std::string>() : "?";
            called("InvokeIntent", intent + " " + handler, std::move(result));
        });
    intents_->finishRegistration();
}

Identification::Identification()
    : ScriptedPeer(false, "norvane.am") {
    exportObject("/norvane/am", "norvane.am.Identify");
    object_->registerMethod("IdentifyByBusName")
        .onInterface(interface_)
        .implementedAs([this](Result<std::string, std::string>&& result, const std::string& busName) {
            called("IdentifyByBusName", busName, std::move(result), [this, busName](auto& reply) {
                const std::lock_guard guard(applicationsLock_);
                const auto entry = applications_.find(busName);
                if (entry != applications_.end() && entry->second.empty()) {
                    reply.returnError(sdbus::Error("norvane.am.Error", "nobody has this name"));
                } else {
                    reply.returnResults(entry == applications_.end() ? busName : entry->second, "user");
                }
            });
        });
    object_->finishRegistration();
}

void Identification::set(const std::string& busName, const std::string& application) {
    const std::lock_guard guard(applicationsLock_);
    applications_[busName] = application;
}

Client::Client()
    : proxy_(sdbus::createProxy(peer_.connection(), "norvane.Vendara", "/norvane/Vendara")) {
    const auto subscribe = [this](const std::string& signal, const auto& handle) {
        proxy_->uponSignal(signal).onInterface("norvane.Vendara").call(handle);
    };
    const auto note = [this](const std::string& text) {
        const std::lock_guard guard(lock_);
        packageSignals_.push_back(text);
    };
    subscribe("OperationStatusChanged", [this](const Operation& operation) {
        const std::lock_guard guard(lock_);
        received_.push_back(operation);
    });
    using Package = Common::PackageRecord;
    subscribe("PackageInstalled", [note](const Package& package) { note("installed " + package.get<0>()); });
    subscribe("PackageUpgraded", [note](const Package& package) { note("upgraded " + package.get<0>()); });
    subscribe("PackageRemoved", [note](const std::string& id) { note("removed " + id); });
    proxy_->finishRegistration();
}

std::vector<Client::Operation> Client::operations(const std::string& key) {
    return call<Properties>("GetAllProperties").at(key).get<std::vector<Operation>>();
}

std::vector<Client::Operation> Client::received() const {
    const std::lock_guard guard(lock_);
    return received_;
}

std::vector<int> Client::statusesOf(const Operation& operation) const {
    std::vector<int> statuses;
    const std::lock_guard guard(lock_);
    for (const auto& record : received_) {
        if (record.get<0>() == operation.get<0>()) {
            statuses.push_back(record.get<3>());
        }
    }
    return statuses;
}

bool Client::waitForStatus(const Operation& operation, int status) const {
    return waitUntil([&] {
        const auto statuses = statusesOf(operation);
        return !statuses.empty() && statuses.back() == status;
    });
}

std::vector<std::string> Client::packageSignals() const {
    const std::lock_guard guard(lock_);
    return packageSignals_;
}

} // namespace Testbed
