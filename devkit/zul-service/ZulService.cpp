#include "devkit/zul-service/ZulService.h"

#include "common/Error.h"
#include "common/Guard.h"
#include "common/LogLine.h"
#include "common/Names.h"
#include "devkit/support/Service.h"
#include "devkit/support/Tasks.h"

#include <map>
#include <optional>
#include <system_error>

namespace Devkit {

namespace Keys = Common::Names::PackageKeys;
namespace Names = Common::Names::Zul;
using Common::ErrorCode;

namespace {

// Does the work; returns what kept it from being done.
std::optional<sdbus::Error> failureOf(const std::function<void()>& work) {
    try {
        work();
        return {};
    } catch (const Common::Error& error) {
        return loggedError(Common::errorNameOf(error.code()), error.what());
    } catch (const std::system_error& error) {
        return loggedError(Common::errorNameOf(ErrorCode::Filesystem), error.what());
    } catch (const std::exception& error) {
        return loggedError(Common::errorNameOf(ErrorCode::Internal), error.what());
    }
}

} // namespace

ZulService::ZulService(Common::BusConnection& bus, PackageManager manager,
                       std::chrono::milliseconds retryDelay)
    : bus_(bus)
    , retryDelay_(retryDelay)
    , packages_(manager.list())
    , object_(sdbus::createObject(bus.bus(), Names::objectPath))
    , manager_(std::move(manager)) {
    rememberIds(packages_);
    registerInterface();
    announceRecovered();
}

ZulService::~ZulService() {
    object_->unregister();
    manager_.stop();
}

void ZulService::finish() {
    object_->unregister();
    manager_.stop();
    worker_.join();
}

void ZulService::registerInterface() {
    object_->registerMethod(Names::install)
        .onInterface(Names::interface)
        .withInputParamNames("path", "options")
        .implementedAs([this](Reply&& reply, const std::string& path,
                              const std::map<std::string, sdbus::Variant>& options) {
            if (!options.empty()) {
                Common::logWarning() << "there are no install options";
            }
            answerWhenDone(std::move(reply), [this, path] { return install(path); });
        });
    object_->registerMethod(Names::remove)
        .onInterface(Names::interface)
        .withInputParamNames("id")
        .implementedAs([this](Reply&& reply, const std::string& id) {
            answerWhenDone(std::move(reply), [this, id]() -> Work {
                manager_.remove(id);
                return [] {}; // announceRemoved() announces it
            });
        });
    object_->registerMethod(Names::getPackageList)
        .onInterface(Names::interface)
        .withOutputParamNames("packages")
        .implementedAs([this] { return presentPackages(); });
    for (const auto& signal : {Names::packageInstalled, Names::packageUpgraded}) {
        object_->registerSignal(signal)
            .onInterface(Names::interface)
            .withParameters<Core::ZUL::PackageData>("package");
    }
    object_->registerSignal(Names::packageRemoved)
        .onInterface(Names::interface)
        .withParameters<std::string>("id");
    object_->finishRegistration();
}

// The service that prepared these upgrades ended without announcing them, and clients still wait.
void ZulService::announceRecovered() {
    for (const auto& id : manager_.recovered()) {
        Common::guarded("couldn't announce the upgrade of " + id,
                        [&] { announce(Names::packageUpgraded, manager_.describe(id)); });
    }
}

ZulService::Work ZulService::install(const std::string& path) {
    const auto installed = manager_.install(path);
    if (installed.isPrepared) {
        return [this, id = installed.id] { completeWhenUnused(id); };
    }
    // The installation has removed a damaged package of that name, perhaps with a prepared upgrade.
    const bool isReplaced = known_.contains(installed.id);
    return [this, isReplaced, id = installed.id] {
        if (isReplaced) {
            announce(Names::packageRemoved, id);
        }
        announce(Names::packageInstalled, manager_.describe(id));
    };
}

// The list was made at the end of the last operation. A package that was deleted since then is left out: its
// next installation is not an upgrade, and clients must not wait for the end of one.
PackageManager::PackageList ZulService::presentPackages() const {
    auto packages = packages_;
    std::erase_if(packages, [this](const auto& package) { return !manager_.isOnDisk(package.at(Keys::id)); });
    return packages;
}

// On the worker's thread, after earlier work.
void ZulService::haveDone(Work work) {
    asio::post(worker_, [work = std::move(work)] {
        Common::guarded("couldn't run a job of the package manager", work);
    });
}

// The reply precedes the signals about the operation, and by then the list includes its result.
void ZulService::answerWhenDone(Reply reply, Request request) {
    haveDone([this, reply = std::make_shared<Reply>(std::move(reply)), request = std::move(request)] {
        Work after = [] {};
        const auto failure = failureOf([&] { after = request(); });
        updateList();
        bus_.post([reply, failure] {
            if (failure) {
                reply->returnError(*failure);
            } else {
                reply->returnResults();
            }
        });
        announceRemoved();
        after();
    });
}

// Called again each time a process that used the installed version has ended: there may be another one. After
// a failure it is called again after a delay, since no event announces that, for example, a disk has space
// again.
void ZulService::completeWhenUnused(const std::string& id) {
    const auto again = [this, id] { haveDone([this, id] { completeWhenUnused(id); }); };
    const auto failure = failureOf([&] {
        if (!manager_.isUpgradePrepared(id)) {
            announceRemoved();
            return;
        }
        if (const auto user = manager_.findUser(id)) {
            postWhenEnded(bus_, *user, again);
            Common::logInfo() << "the upgrade of " << id << " waits for process " << std::to_string(*user);
            return;
        }
        const auto package = manager_.describe(id);
        manager_.completeUpgrade(id);
        updateList();
        announce(Names::packageUpgraded, package);
    });
    if (failure) {
        Common::logError() << "couldn't complete the upgrade of " << id;
        updateList();
        announceRemoved();
        postAfter(bus_, retryDelay_, again);
    }
}

void ZulService::updateList() {
    Common::guarded("couldn't list the packages", [this] {
        const auto list = manager_.list();
        rememberIds(list);
        bus_.post([this, list] { packages_ = list; });
    });
}

void ZulService::rememberIds(const PackageManager::PackageList& list) {
    for (const auto& package : list) {
        if (manager_.isOnDisk(package.at(Keys::id))) {
            known_.insert(package.at(Keys::id));
        }
    }
}

// Not only after requests: the database also removes damaged packages, whose upgrade clients may wait for.
void ZulService::announceRemoved() {
    std::erase_if(known_, [this](const std::string& id) {
        const bool isRemoved = !manager_.isOnDisk(id);
        if (isRemoved) {
            announce(Names::packageRemoved, id);
        }
        return isRemoved;
    });
}

/// @param argument  a package's record, or the identifier of one that was removed
template<typename Argument>
void ZulService::announce(const std::string& signal, const Argument& argument) {
    bus_.post([this, signal, argument] {
        object_->emitSignal(signal).onInterface(Names::interface).withArguments(argument);
    });
}

} // namespace Devkit
