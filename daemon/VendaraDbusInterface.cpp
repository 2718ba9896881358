#include "daemon/VendaraDbusInterface.h"

#include "common/BusText.h"
#include "common/LogLine.h"
#include "common/Names.h"
#include "common/PlatformFacts.h"
#include "common/rpm/Reader.h"

#include <algorithm>
#include <climits>

namespace Daemon {

namespace {

namespace MessageBus = Common::Names::MessageBus;
namespace Own = Common::Names::Vendara;
namespace RuntimeManager = Common::Names::RuntimeManager;

sdbus::Error refusal(const std::string& text) { return {Own::error, text}; }

// The edge: whatever a request throws becomes the interface's one error. A refusal has its text already; for
// anything else the cause goes to the log and the caller gets the given text.
template<typename Request>
auto answered(const std::string& text, Request&& request) {
    try {
        return request();
    } catch (const sdbus::Error& error) {
        if (error.getName() == Own::error) {
            throw;
        }
        Common::logError() << error.getMessage();
    } catch (const std::exception& error) {
        Common::logError() << error;
    }
    throw refusal(text);
}

std::unique_ptr<Common::BusClient> runtimeManager(const std::string& path, const std::string& interface) {
    return std::make_unique<Common::BusClient>(
        Common::BusEndpoint{Common::Bus::Session, RuntimeManager::service, path, interface});
}

// A text out of a file, about to be sent.
std::string checked(std::string text, const char* what) {
    if (!Common::isBusText(text)) {
        throw Common::Error(Common::ErrorCode::Internal, std::string(what) + " is no valid text");
    }
    return text;
}

// The identifier names a directory; a longer one would only burden every message that carries it.
std::string packageIdOf(const std::string& packagePath) {
    return answered("Failed to retrieve id from the rpm package", [&] {
        auto name = checked(Common::Rpm::Reader(packagePath).getStringTag(RPMTAG_NAME), "the package's name");
        if (name.size() > NAME_MAX) {
            throw Common::Error(Common::ErrorCode::BadPackage, "the package's name is too long");
        }
        return name;
    });
}

Common::PackageRecord packageFromProperties(const Common::PackageProperties& properties) {
    namespace Keys = Common::Names::PackageKeys;
    const auto valueOf = [&](const std::string& key) {
        const auto entry = properties.find(key);
        if (entry == properties.end()) {
            throw Common::Error(Common::ErrorCode::Internal,
                                "couldn't retrieve required properties from ZUL package");
        }
        return entry->second;
    };
    return {valueOf(Keys::id),
            valueOf(Keys::version),
            valueOf(Keys::certificateSubgroup),
            valueOf(Keys::certificateId),
            {}};
}

std::vector<Common::OperationRecord> recordsOf(const std::vector<Core::Operation>& operations) {
    std::vector<Common::OperationRecord> records;
    records.reserve(operations.size());
    std::transform(operations.begin(), operations.end(), std::back_inserter(records),
                   [](const Core::Operation& operation) { return operation.record(); });
    return records;
}

} // namespace

VendaraDbusInterface::VendaraDbusInterface(sdbus::IConnection& connection, MainLoop& loop,
                                           std::string objectPath)
    : AdaptorInterfaces(connection, std::move(objectPath))
    , connection_(connection)
    , loop_(loop) {
    auto control = runtimeManager(RuntimeManager::controlPath, RuntimeManager::controlInterface);
    auto intents = runtimeManager(RuntimeManager::intentsPath, RuntimeManager::intentsInterface);
    controller_.emplace(std::move(intents), std::move(control));
    registerAdaptor();
    relayPackageSignals();
}

VendaraDbusInterface::~VendaraDbusInterface() {
    unregisterAdaptor();
    ending_ = true;
    controller_.reset();
    loop_.drain();
}

Common::OperationRecord VendaraDbusInterface::Install(const std::string& packagePath) {
    return answered("Failed to install package", [&] {
        Core::Operation operation;
        operation.setInitiator(determineInitiator());
        operation.setPackageId(packageIdOf(packagePath));
        operation.setPackagePath(packagePath);
        try {
            findInstalledPackage(operation.packageId());
            operation.setType(Core::OperationType::Upgrade);
        } catch (const std::exception&) {
            // Not installed, or nobody can tell: the package manager decides.
            operation.setType(Core::OperationType::Install);
        }
        return enqueue(std::move(operation));
    });
}

Common::OperationRecord VendaraDbusInterface::Remove(const std::string& packageID) {
    return answered("Failed to remove package", [&] {
        findInstalledPackage(packageID);
        Core::Operation operation;
        operation.setInitiator(determineInitiator());
        operation.setPackageId(packageID);
        operation.setType(Core::OperationType::Remove);
        return enqueue(std::move(operation));
    });
}

// What is taken is gone, so the completed operations come last, when nothing else can fail.
std::map<std::string, sdbus::Variant> VendaraDbusInterface::GetAllProperties() {
    return answered("Failed to retrieve properties", [&] {
        const auto initiator = determineInitiator();
        std::map<std::string, sdbus::Variant> properties;
        answered("Failed to retrieve the platform architecture", [&] {
            properties["Architecture"] = checked(Common::getPlatformArchitecture(), "the architecture");
            properties["QuenraVersion"] = checked(Common::getOsVersion(), "the system's version");
        });
        properties["Packages"] = getInstalledPackages();
        properties["Operations"] = recordsOf(controller_->operationsOf(initiator));
        properties["CompletedOperations"] = recordsOf(controller_->takeCompletedOperations(initiator));
        return properties;
    });
}

void VendaraDbusInterface::Start(const std::string& packageID) {
    answered("Failed to start application", [&] { controller_->startApplication(packageID); });
}

void VendaraDbusInterface::Restart(const std::string& packageID) {
    answered("Failed to restart application", [&] { controller_->restartApplication(packageID); });
}

Common::CallerIdentity VendaraDbusInterface::determineInitiator() {
    return answered("Couldn't determinate operation initiator", [&] {
        const auto* message = getObject().getCurrentlyProcessedMessage();
        if (message == nullptr) {
            throw Common::Error(Common::ErrorCode::Internal, "couldn't retrieve currently processed message");
        }
        return Common::identifyByBusName(message->getSender(), true);
    });
}

std::vector<Common::PackageRecord> VendaraDbusInterface::getInstalledPackages() {
    std::vector<Common::PackageProperties> packages;
    try {
        packages = controller_->packageManager().getPackageList();
    } catch (const Common::Error& error) {
        Common::logFailure(Common::LogLevel::Error, "couldn't retrieve list of installed packages", error);
        throw refusal("Failed to retrieve list of installed packages");
    }
    std::vector<Common::PackageRecord> records;
    for (const auto& package : packages) {
        try {
            records.push_back(packageFromProperties(package));
        } catch (const Common::Error& error) {
            Common::logWarning() << error;
        }
    }
    return records;
}

void VendaraDbusInterface::findInstalledPackage(const std::string& id) {
    const auto packages = getInstalledPackages();
    if (std::none_of(packages.begin(), packages.end(),
                     [&](const auto& package) { return std::get<0>(package) == id; })) {
        Common::logError() << "couldn't find package: " << id;
        throw refusal("The package does not exist");
    }
}

Common::OperationRecord VendaraDbusInterface::enqueue(Core::Operation operation) {
    // By reference: hooks are still called while the controller is being destroyed and controller_ is empty.
    auto& controller = *controller_;
    operation.setStatusChanged(
        [this, &controller](const Core::Operation& changed) { notifyOperationStatus(controller, changed); });
    auto record = operation.record();
    controller.enqueue(std::move(operation));
    return record;
}

void VendaraDbusInterface::relayPackageSignals() {
    namespace Zul = Common::Names::Zul;
    using Common::PackageProperties;
    auto& packageManager = controller_->packageManager();
    packageManager.addPackageInstalledHandler([this](const PackageProperties& package) {
        relayPackage(Zul::packageInstalled, "installed", package);
    });
    packageManager.addPackageUpgradedHandler([this](const PackageProperties& package) {
        relayPackage(Zul::packageUpgraded, "upgraded", package);
    });
    packageManager.addPackageRemovedHandler(
        [this](const std::string& packageId) { broadcast(Zul::packageRemoved, "removed", packageId); });
    controller_->start();
}

void VendaraDbusInterface::relayPackage(const std::string& signal, const std::string& event,
                                        const Common::PackageProperties& properties) {
    try {
        broadcast(signal, event, packageFromProperties(properties));
    } catch (const Common::Error& error) {
        Common::logError() << error;
    }
}

template<typename Argument>
void VendaraDbusInterface::broadcast(const std::string& signal, const std::string& event,
                                     const Argument& argument) {
    loop_.post([this, signal, event, argument] {
        try {
            auto message = getObject().createSignal(Own::interface, signal);
            message << argument;
            message.send();
        } catch (const sdbus::Error&) {
            Common::logError() << "couldn't emit package " << event << " signal";
        }
    });
}

// The status hook of every operation; runs on the main thread or on the controller's announcer. At the end
// nobody is asked, so that an identification service that hangs cannot hold it up: a unique name is never
// given twice.
void VendaraDbusInterface::notifyOperationStatus(Core::Controller& controller,
                                                 const Core::Operation& operation) {
    if (ending_ || Common::isSameApplicationStillOnBus(operation.initiator())) {
        loop_.post([this, &controller, operation] {
            // The main thread may have been busy for long: an end must not be told to a name that is gone by
            // now.
            if (!ending_ && operation.isCompleted() && !isOnBus(operation.initiator().busName())) {
                keepUntold(controller, operation);
            } else {
                sendOperationStatus(operation);
            }
        });
        return;
    }
    keepUntold(controller, operation);
}

void VendaraDbusInterface::keepUntold(Core::Controller& controller, const Core::Operation& operation) {
    Common::logWarning() << "couldn't send " << Own::operationStatusChanged << " signal";
    Common::logWarning() << "operation initiator is not dbus available";
    if (operation.isCompleted()) {
        controller.addCompletedOperation(operation);
    }
}

bool VendaraDbusInterface::isOnBus(const std::string& busName) {
    try {
        bool owned = false;
        sdbus::createProxy(connection_, MessageBus::service, MessageBus::objectPath)
            ->callMethod(MessageBus::nameHasOwner)
            .onInterface(MessageBus::interface)
            .withArguments(busName)
            .storeResultsTo(owned);
        return owned;
    } catch (const sdbus::Error&) {
        return false;
    }
}

void VendaraDbusInterface::sendOperationStatus(const Core::Operation& operation) {
    try {
        auto message = getObject().createSignal(Own::interface, Own::operationStatusChanged);
        message << operation.record();
        message.setDestination(operation.initiator().busName());
        message.send();
    } catch (const sdbus::Error& error) {
        Common::logWarning() << "couldn't send " << Own::operationStatusChanged << " signal";
        Common::logWarning() << error.getMessage();
    }
}

} // namespace Daemon
