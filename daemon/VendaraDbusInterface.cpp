#include "daemon/VendaraDbusInterface.h"

#include "common/BusText.h"
#include "common/Files.h"
#include "common/Guard.h"
#include "common/Names.h"
#include "common/PackageId.h"
#include "common/PlatformFacts.h"
#include "common/rpm/PackageLayout.h"
#include "common/rpm/Reader.h"
#include "daemon/Vendara_adaptor.h"

#include <algorithm>
#include <climits>
#include <mutex>
#include <sys/eventfd.h>
#include <sys/resource.h>

namespace Daemon {

namespace {

constexpr auto noInitiator = "Couldn't determinate operation initiator";
constexpr auto noList = "Failed to retrieve list of installed packages";

namespace Own = Common::Names::Vendara;
namespace Keys = Common::Names::PackageKeys;
using Common::TimePoint;

sdbus::Error refusal(const std::string& text) { return {Own::error, text}; }

// Converts every exception of a request to the interface's error. A refusal already has its text; for other
// exceptions the cause is logged and the caller gets the given text.
sdbus::Error refusalFor(const std::exception_ptr& failure, const std::string& text) {
    try {
        std::rethrow_exception(failure);
    } catch (const sdbus::Error& error) {
        if (error.getName() == Own::error) {
            return error;
        }
        Common::logError() << error.getMessage();
    } catch (const std::exception& error) {
        Common::logError() << error;
    } catch (...) {
    }
    return refusal(text);
}

struct PackageHeader {
    explicit PackageHeader(const std::string& path) {
        // The lock that librpm needs is taken only after the headers were read once and are cached, so that a
        // file system that does not respond delays only requests for its own files.
        const auto file = Common::Rpm::openPackageFile(path);
        const auto layout = Common::Rpm::readPackageLayout(file.get());
        const auto end = std::min(layout ? layout->payloadOffset : 0, Common::Rpm::Reader::maximumHeaderSize);
        std::vector<std::byte> piece(65536);
        for (std::uint64_t place = 0; place < end; place += piece.size()) {
            static_cast<void>(Common::readAll(file.get(), piece, place));
        }
        static std::mutex librpm;
        const std::lock_guard lock(librpm);
        const Common::Rpm::Reader reader(file, path);
        id = reader.getStringTag(RPMTAG_NAME);
        version = reader.getStringTag(RPMTAG_VERSION) + "-" + reader.getStringTag(RPMTAG_RELEASE);
        Common::requirePackageId(id);
        if (!Common::isOrdinaryName(version)) { // no database has such a version; each operation stores it
            throw Common::Error(Common::ErrorCode::BadPackage,
                                "the package's version cannot be a directory's name");
        }
    }
    std::string id;
    std::string version;
};

// The descriptors attached to a request stay open until the reply. If none is left for the next message, the
// bus library closes the connection.
bool areDescriptorsShort() {
    rlimit limit{};
    const Common::UniqueFd lowest(eventfd(0, EFD_CLOEXEC));
    return !lowest || getrlimit(RLIMIT_NOFILE, &limit) != 0 ||
           static_cast<rlim_t>(lowest.get()) >= limit.rlim_cur / 2;
}

// Checks a text from a file before it is sent.
std::string requireBusText(std::string text, const char* what) {
    if (!Common::isBusText(text)) {
        throw Common::Error(Common::ErrorCode::Internal, std::string(what) + " is not a valid D-Bus string");
    }
    return text;
}

Common::PackageRecord packageFromProperties(const Common::PackageProperties& properties) {
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

class VendaraDbusInterface::Adaptor final : private sdbus::AdaptorInterfaces<norvane::Vendara_adaptor> {
public:
    explicit Adaptor(VendaraDbusInterface& service)
        : AdaptorInterfaces(service.session_.bus(), service.objectPath_)
        , service_(service) {
        registerAdaptor();
    }
    ~Adaptor() { unregisterAdaptor(); }
    Adaptor(const Adaptor&) = delete;
    Adaptor& operator=(const Adaptor&) = delete;

    using AdaptorInterfaces::getObject;

private:
    void Install(sdbus::Result<Common::WireOperation>&& result, std::string packagePath) override;
    void Remove(sdbus::Result<Common::WireOperation>&& result, std::string packageID) override;
    void GetAllProperties(sdbus::Result<Properties>&& result) override;
    void Start(sdbus::Result<>&& result, std::string packageID) override;
    void Restart(sdbus::Result<>&& result, std::string packageID) override;

    VendaraDbusInterface& service_;
};

VendaraDbusInterface::VendaraDbusInterface(Common::BusConnection& session, std::string objectPath)
    : session_(session)
    , loop_(session.loop())
    , objectPath_(std::move(objectPath))
    , controller_(session)
    , identification_(session)
    , announcer_(session, identification_, controller_,
                 [this](const Core::Operation& operation) { sendOperationStatus(operation); })
    , requests_(loop_)
    , relays_(loop_)
    , adaptor_(std::make_unique<Adaptor>(*this)) {
    relayPackageSignals();
    loop_.onTermination([this] { loop_.spawn("couldn't shut down", end()); });
}

VendaraDbusInterface::~VendaraDbusInterface() = default;

void VendaraDbusInterface::exportAnew() {
    adaptor_.reset();
    adaptor_ = std::make_unique<Adaptor>(*this);
}

void VendaraDbusInterface::Adaptor::Install(sdbus::Result<Common::WireOperation>&& result,
                                            std::string packagePath) {
    service_.accept(std::move(result), {"Failed to retrieve id from the rpm package", noInitiator}, [&] {
        service_.requireRunning();
        if (packagePath.size() >= PATH_MAX || !packagePath.starts_with('/')) {
            throw Common::Error(Common::ErrorCode::FileNotFound,
                                "the package's path is not absolute, or too long");
        }
        return [&service = service_, packagePath](OperationReply& reply, Request request) {
            return service.install(reply, std::move(request), packagePath);
        };
    });
}

void VendaraDbusInterface::Adaptor::Remove(sdbus::Result<Common::WireOperation>&& result,
                                           std::string packageID) {
    service_.accept(std::move(result), {"Failed to remove package", noList}, [&] {
        service_.requireRunning();
        if (!Common::isPackageId(packageID)) {
            Common::logError() << "couldn't find package: " << packageID.substr(0, NAME_MAX);
            throw refusal("The package does not exist");
        }
        return [&service = service_, packageID](OperationReply& reply, Request request) {
            return service.remove(reply, std::move(request), packageID);
        };
    });
}

void VendaraDbusInterface::Adaptor::GetAllProperties(sdbus::Result<Properties>&& result) {
    service_.accept(std::move(result), {"Failed to retrieve properties", noInitiator}, [&] {
        return [&service = service_](Reply<Properties>& reply, Request request) {
            return service.getAllProperties(reply, std::move(request));
        };
    });
}

void VendaraDbusInterface::Adaptor::Start(sdbus::Result<>&& result, std::string packageID) {
    service_.acceptLaunch(std::move(result), {"Failed to start application", "Failed to start application"},
                          packageID, &Core::LaunchControl::startApplication);
}

void VendaraDbusInterface::Adaptor::Restart(sdbus::Result<>&& result, std::string packageID) {
    service_.acceptLaunch(std::move(result),
                          {"Failed to restart application", "Failed to terminate application"}, packageID,
                          &Core::LaunchControl::restartApplication);
}

// Called by the bus library, so no exception may escape. A request that fails the check or exceeds a limit is
// refused at once.
template<typename... Results, typename Check>
void VendaraDbusInterface::accept(sdbus::Result<Results...>&& result, Texts texts, const Check& check) {
    std::shared_ptr<Reply<Results...>> reply;
    try {
        reply =
            std::make_shared<Reply<Results...>>(Reply<Results...>{session_.sharedBus(), std::move(result)});
        const auto* message = adaptor_->getObject().getCurrentlyProcessedMessage();
        if (message == nullptr) {
            throw Common::Error(Common::ErrorCode::Internal, "couldn't retrieve currently processed message");
        }
        Request request{message->getSender(), TimePoint::clock::now() + requestLimit};
        const auto waiting = requests_.count(request.sender);
        if (waiting >= maximumRequests || (waiting > 0 && requests_.count() >= maximumRequestsOfAll) ||
            areDescriptorsShort()) {
            throw refusal("Too many requests are waiting");
        }
        requests_.add(request.sender, [this, reply, texts, request, handler = check()] {
            return answer(reply, texts, request, handler);
        });
    } catch (...) {
        if (reply) {
            refuse(*reply, std::current_exception(), texts.failure);
        }
    }
}

void VendaraDbusInterface::acceptLaunch(sdbus::Result<>&& result, Texts texts, const std::string& packageID,
                                        Launch call) {
    accept(std::move(result), texts, [&] {
        requireRunning();
        Common::requirePackageId(packageID);
        return [this, packageID, call](Reply<>& reply, Request request) {
            return launch(reply, request.deadline, packageID, call);
        };
    });
}

template<typename... Results, typename Handler>
asio::awaitable<void> VendaraDbusInterface::answer(std::shared_ptr<Reply<Results...>> reply, Texts texts,
                                                   Request request, Handler handler) {
    if (!session_.isConnected(reply->bus)) {
        co_return; // the caller has an error reply from the bus
    }
    std::exception_ptr cause;
    try {
        if (TimePoint::clock::now() >= request.deadline) {
            Common::logError() << "a request timed out waiting for earlier requests of its connection";
            throw refusal(texts.late);
        }
        auto handled = handler(*reply, request); // named: g++ 12 destroys temporaries of co_await twice
        co_await std::move(handled);
    } catch (...) {
        cause = std::current_exception();
    }
    if (cause && session_.isConnected(reply->bus)) {
        refuse(*reply, cause, texts.failure);
    }
}

template<typename... Results>
void VendaraDbusInterface::refuse(const Reply<Results...>& reply, const std::exception_ptr& cause,
                                  const char* failure) {
    Common::guarded("couldn't refuse a request", [&] {
        session_.send(reply.bus, [&] { reply.result.returnError(refusalFor(cause, failure)); });
    });
}

void VendaraDbusInterface::requireRunning() const {
    if (isEnding_) {
        throw refusal("The service is shutting down");
    }
}

asio::awaitable<void> VendaraDbusInterface::install(OperationReply& reply, Request request,
                                                    std::string packagePath) {
    Core::Operation operation;
    // The three queries run at the same time.
    const auto reading = loop_.begin([packagePath] { return PackageHeader(packagePath); });
    auto listing = controller_.packageManager().getPackageList(request.deadline);
    const auto initiator = co_await determineInitiator(request.sender, request.deadline);
    operation.setInitiator(initiator);
    const auto header = co_await Common::Loop::finish(reading, request.deadline);
    operation.setPackageId(header.id);
    operation.setPackageVersion(header.version);
    operation.setPackagePath(std::move(packagePath));
    try {
        co_await findInstalledPackage(header.id, std::move(listing));
        operation.setType(Core::OperationType::Upgrade);
    } catch (const std::exception&) {
        // The package is not installed, or that cannot be determined: the package manager decides.
        operation.setType(Core::OperationType::Install);
    }
    const auto record = co_await enqueue(std::move(operation), reply, request.deadline);
    session_.send(reply.bus, [&] { reply.result.returnResults(Common::toWire(record)); });
}

asio::awaitable<void> VendaraDbusInterface::remove(OperationReply& reply, Request request,
                                                   std::string packageID) {
    auto listing = controller_.packageManager().getPackageList(request.deadline);
    co_await findInstalledPackage(packageID, std::move(listing));
    Core::Operation operation;
    const auto initiator = co_await determineInitiator(request.sender, request.deadline);
    operation.setInitiator(initiator);
    operation.setPackageId(std::move(packageID));
    operation.setType(Core::OperationType::Remove);
    const auto record = co_await enqueue(std::move(operation), reply, request.deadline);
    session_.send(reply.bus, [&] { reply.result.returnResults(Common::toWire(record)); });
}

// Taking the completed operations removes them, so they are taken last, when only the reply can still fail.
asio::awaitable<void> VendaraDbusInterface::getAllProperties(Reply<Properties>& reply, Request request) {
    auto listing = controller_.packageManager().getPackageList(request.deadline);
    const auto initiator = co_await determineInitiator(request.sender, request.deadline);
    Properties properties;
    try {
        properties[Own::architecture] = requireBusText(Common::getPlatformArchitecture(), "the architecture");
        properties[Own::quenraVersion] = requireBusText(Common::getOsVersion(), "the system's version");
    } catch (const std::exception&) {
        throw refusalFor(std::current_exception(), "Failed to retrieve the platform architecture");
    }
    const auto packages = co_await installedPackages(std::move(listing));
    properties[Own::packages] = packages;
    properties[Own::operations] = recordsOf(controller_.operationsOf(initiator));
    auto completed = controller_.takeCompletedOperations(initiator);
    try {
        properties[Own::completedOperations] = recordsOf(completed);
        session_.send(reply.bus, [&] { reply.result.returnResults(properties); });
    } catch (...) {
        controller_.returnCompletedOperations(completed);
        throw;
    }
    if (!completed.empty()) {
        // Queried before any later reply is sent, so a caller that has a later reply is known to have this
        // one.
        const bool isReceived = co_await announcer_.isOnBus(request.sender, reply.bus);
        if (!isReceived) {
            controller_.returnCompletedOperations(completed);
        }
    }
}

asio::awaitable<void> VendaraDbusInterface::launch(Reply<>& reply, TimePoint deadline, std::string packageID,
                                                   Launch call) {
    co_await (controller_.launchControl().*call)(std::move(packageID), deadline);
    session_.send(reply.bus, [&] { reply.result.returnResults(); });
}

asio::awaitable<Common::CallerIdentity> VendaraDbusInterface::determineInitiator(std::string sender,
                                                                                 TimePoint deadline) {
    try {
        co_return co_await identification_.identify(sender, deadline);
    } catch (const Common::Error&) {
        throw refusalFor(std::current_exception(), noInitiator);
    }
}

asio::awaitable<std::vector<Common::PackageRecord>>
VendaraDbusInterface::installedPackages(PackageListing listing) {
    Core::ZulProxy::PackageList packages;
    try {
        packages = co_await std::move(listing);
    } catch (const Common::Error& error) {
        Common::logFailure(Common::LogLevel::Error, "couldn't retrieve list of installed packages", error);
        throw refusal(noList);
    }
    std::vector<Common::PackageRecord> records;
    records.reserve(packages->size());
    for (const auto& package : *packages) {
        try {
            records.push_back(packageFromProperties(package));
        } catch (const Common::Error& error) {
            Common::logWarning() << error;
        }
    }
    co_return records;
}

asio::awaitable<void> VendaraDbusInterface::findInstalledPackage(std::string id, PackageListing listing) {
    const auto packages = co_await installedPackages(std::move(listing));
    if (std::none_of(packages.begin(), packages.end(),
                     [&](const auto& package) { return package.id == id; })) {
        Common::logError() << "couldn't find package: " << id;
        throw refusal("The package does not exist");
    }
}

// Replies come after the status Queued has been sent. A caller whose request came on a lost connection has an
// error reply from the bus.
asio::awaitable<Common::OperationRecord>
VendaraDbusInterface::enqueue(Core::Operation operation, const OperationReply& reply, TimePoint deadline) {
    if (!session_.isConnected(reply.bus)) {
        throw Common::Error(Common::ErrorCode::Internal, "the connection of the request was lost");
    }
    requireRunning();
    if (controller_.isFull(operation.initiator())) {
        throw refusal("Too many operations are queued");
    }
    operation.setStatusChanged([this](const Core::Operation& changed) { announcer_.add(changed); });
    const auto record = operation.record();
    const auto busName = operation.initiator().busName();
    controller_.enqueue(std::move(operation));
    co_await announcer_.flushed(busName, deadline);
    co_return record;
}

void VendaraDbusInterface::relayPackageSignals() {
    namespace Zul = Common::Names::Zul;
    using Common::PackageProperties;
    auto& packageManager = controller_.packageManager();
    packageManager.addPackageInstalledHandler([this](const PackageProperties& package) {
        relayPackage(Zul::packageInstalled, "installed", package);
    });
    packageManager.addPackageUpgradedHandler([this](const PackageProperties& package) {
        relayPackage(Zul::packageUpgraded, "upgraded", package);
    });
    packageManager.addPackageRemovedHandler([this](const std::string& packageId) {
        relay(packageId, Zul::packageRemoved, "removed", packageId);
    });
}

void VendaraDbusInterface::relayPackage(const std::string& signal, const std::string& event,
                                        const Common::PackageProperties& properties) {
    try {
        const auto package = packageFromProperties(properties);
        relay(package.id, signal, event, package);
    } catch (const Common::Error& error) {
        Common::logError() << error;
    }
}

template<typename Argument>
void VendaraDbusInterface::relay(const std::string& packageId, const std::string& signal,
                                 const std::string& event, const Argument& argument) {
    relays_.add(packageId, [this, packageId, signal, event, argument]() -> asio::awaitable<void> {
        co_await controller_.upgradeSettled(packageId);
        co_await announcer_.flushedEndsOf(packageId);
        co_await session_.awaitConnection(TimePoint::clock::now() + Common::defaultTimeout);
        try {
            auto message = adaptor_->getObject().createSignal(Own::interface, signal);
            message << argument;
            session_.send([&] { message.send(); });
        } catch (const sdbus::Error&) {
            Common::logError() << "couldn't emit package " << event << " signal";
        }
    });
}

void VendaraDbusInterface::sendOperationStatus(const Core::Operation& operation) {
    auto message = adaptor_->getObject().createSignal(Own::interface, Own::operationStatusChanged);
    message << operation.record();
    message.setDestination(operation.initiator().busName());
    session_.send([&] { message.send(); });
}

asio::awaitable<void> VendaraDbusInterface::end() {
    isEnding_ = true;
    try {
        co_await controller_.finish();
        announcer_.hurry();
        co_await announcer_.flushedAll();
        co_await session_.flushed(TimePoint::clock::now() + std::chrono::seconds(2));
        loop_.stop();
    } catch (...) {
        loop_.fail(std::current_exception());
    }
}

} // namespace Daemon
