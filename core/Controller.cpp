#include "core/Controller.h"

#include "common/Guard.h"
#include "common/Names.h"

#include <algorithm>
#include <ranges>
#include <utility>

namespace Core {

namespace {

namespace Keys = Common::Names::PackageKeys;

void fail(Operation& operation, Common::ErrorCode code) {
    operation.setErrorCode(static_cast<std::uint32_t>(code));
    operation.setStatus(OperationStatus::Failed);
}

std::string valueOf(const Common::PackageProperties& package, const std::string& key) {
    const auto entry = package.find(key);
    return entry == package.end() ? std::string() : entry->second;
}

} // namespace

Controller::Controller(Common::BusConnection& session)
    : loop_(session.loop())
    , launchControl_(session)
    , zul_(loop_) {
    zul_.addPackageUpgradedHandler(
        [this](const Common::PackageProperties& package) { packageUpgraded(package, /*isAnew=*/false); });
    zul_.addPackageInstalledHandler(
        [this](const Common::PackageProperties& package) { packageUpgraded(package, /*isAnew=*/true); });
    zul_.addPackageRemovedHandler([this](const std::string& packageId) {
        loop_.spawn("couldn't check the awaiting upgrades", checkUpgrades(packageId));
    });
    launchControl_.setRestartHandler([this](const std::string& packageId) {
        // While the package manager recovers, it completes upgrades without a signal.
        if (zul_.mayBeRecovering()) {
            inDoubt_.insert(packageId);
            isCheckDue_ = true;
            loop_.spawn("couldn't check the awaiting upgrades", checkDoubts());
        }
    });
    zul_.setAppearedHandler([this] { loop_.spawn("couldn't check the awaiting upgrades", checkUpgrades()); });
}

bool Controller::isFull(const Common::CallerIdentity& initiator) const {
    const auto count = counts_.find(initiator.key());
    return count != counts_.end() && count->second >= maximumOperations;
}

void Controller::enqueue(Operation operation) {
    ++counts_[operation.initiator().key()];
    queue_.push_back(std::move(operation));
    // Before the hook: the announcement that the hook posts then runs after the first step, so that both
    // statuses are announced together.
    if (!isWorking_) {
        isWorking_ = true;
        loop_.spawn("couldn't carry out operations", work());
    }
    queue_.back().setStatus(OperationStatus::Queued);
}

std::vector<Operation> Controller::operationsOf(const Common::CallerIdentity& initiator) const {
    std::vector<Operation> operations;
    const auto addOwn = [&](const auto& all) {
        std::copy_if(all.begin(), all.end(), std::back_inserter(operations), [&](const Operation& operation) {
            return operation.initiator().isSameApplication(initiator);
        });
    };
    addOwn(queue_);
    if (current_) {
        addOwn(std::vector{*current_});
    }
    addOwn(awaiting_);
    for (const auto& [id, ended] : ended_) {
        addOwn(std::vector{ended});
    }
    return operations;
}

std::vector<Operation> Controller::takeCompletedOperations(const Common::CallerIdentity& initiator) {
    auto entry = completed_.extract(initiator.key());
    if (!entry) {
        return {};
    }
    auto& operations = entry.mapped();
    return {std::make_move_iterator(operations.begin()), std::make_move_iterator(operations.end())};
}

void Controller::addCompletedOperation(const Operation& operation) {
    auto& store = completed_[operation.initiator().key()];
    store.push_back(operation);
    if (store.size() > maximumCompleted) {
        Common::logWarning() << "dropped the oldest of too many completed operations: " << store.front().id();
        store.pop_front();
    }
    reported(operation);
}

void Controller::returnCompletedOperations(const std::vector<Operation>& operations) {
    for (const auto& operation : std::views::reverse(operations)) {
        auto& store = completed_[operation.initiator().key()];
        if (store.size() < maximumCompleted) {
            store.push_front(operation);
        } else {
            Common::logWarning() << "dropped the oldest of too many completed operations: " << operation.id();
        }
    }
}

void Controller::reported(const Operation& operation) {
    if (current_ && current_->id() == operation.id() && !isCurrentReported_) {
        isCurrentReported_ = true;
        uncount(operation);
    } else if (ended_.erase(operation.id()) > 0) {
        uncount(operation);
    }
}

asio::awaitable<void> Controller::finish() {
    isFinishing_ = true;
    if (const auto running = running_) {
        co_await running->wait();
    }
    for (auto& operation : queue_) {
        fail(operation, Common::ErrorCode::Internal);
        ended_.emplace(operation.id(), operation);
    }
    queue_.clear();
}

asio::awaitable<void> Controller::upgradeSettled(std::string packageId) {
    const auto running = running_;
    if (running && upgradeReported_ && current_->packageId() == packageId) {
        co_await running->wait();
    }
}

asio::awaitable<void> Controller::work() {
    try {
        while (!queue_.empty() && !isFinishing_) {
            takeNext();
            co_await carryOut();
        }
        isWorking_ = false;
    } catch (...) {
        loop_.fail(std::current_exception()); // otherwise no further operation would be executed
    }
}

void Controller::takeNext() {
    if (current_ && !current_->isCompleted()) {
        uncount(*current_); // of an unknown type
    } else if (current_ && !isCurrentReported_) {
        ended_.emplace(current_->id(), std::move(*current_));
    }
    current_ = std::move(queue_.front());
    queue_.pop_front();
    isCurrentReported_ = false;
    upgradeReported_ = false;
    current_->setStatus(OperationStatus::InProgress);
}

asio::awaitable<void> Controller::carryOut() {
    const auto running = running_ = std::make_shared<Common::Event>(loop_.context());
    try {
        co_await callPackageManager();
    } catch (const Common::Error& error) {
        Common::logError() << error;
        fail(*current_, error.code());
    } catch (const std::exception& error) {
        Common::logError() << error;
        fail(*current_, Common::ErrorCode::Internal);
    }
    running_.reset();
    running->set();
}

asio::awaitable<void> Controller::callPackageManager() {
    switch (current_->type()) {
    case OperationType::Install:
        co_await zul_.install(current_->packagePath());
        finishCurrent();
        co_return;
    case OperationType::Upgrade:
        co_await zul_.install(current_->packagePath());
        awaitUpgrade();
        co_return;
    case OperationType::Remove:
        co_await zul_.remove(current_->packageId());
        finishCurrent();
        co_return;
    }
    Common::logWarning() << "unexpected operation type: "
                         << std::to_string(static_cast<std::int32_t>(current_->type()));
}

void Controller::finishCurrent() {
    current_->setStatus(OperationStatus::Finished);
    ended_.emplace(current_->id(), std::move(*current_));
    current_.reset();
}

// An upgrade that was signalled while the install call was running takes effect here.
void Controller::awaitUpgrade() {
    current_->setStatus(OperationStatus::AwaitingUpgrade);
    awaiting_.push_back(std::move(*current_));
    current_.reset();
    if (upgradeReported_) {
        endAwaiting(std::prev(awaiting_.end()), Common::ErrorCode::None);
    }
}

void Controller::endAwaiting(std::list<Operation>::iterator awaiting, Common::ErrorCode code) {
    if (code == Common::ErrorCode::None) {
        awaiting->setStatus(OperationStatus::Finished);
    } else {
        fail(*awaiting, code);
    }
    ended_.emplace(awaiting->id(), *awaiting);
    awaiting_.erase(awaiting);
}

void Controller::uncount(const Operation& operation) {
    const auto count = counts_.find(operation.initiator().key());
    if (count != counts_.end() && --count->second == 0) {
        counts_.erase(count);
    }
}

// An upgrade that is queued behind the removal of its package is carried out as a first installation. Its
// signal follows the reply, so the next upgrade of the package, of another version, may run already.
void Controller::packageUpgraded(const Common::PackageProperties& package, bool isAnew) {
    const auto id = package.find(Keys::id);
    if (id == package.end()) {
        Common::logWarning() << "couldn't retrieve package id from upgraded package";
        return;
    }
    bool hasEnded = false;
    const auto isDone = [&](const Operation& operation) {
        return operation.packageId() == id->second &&
               (!isAnew || operation.packageVersion() == valueOf(package, Keys::version));
    };
    if (running_ && current_->type() == OperationType::Upgrade && isDone(*current_)) {
        upgradeReported_ = true;
        hasEnded = true;
    }
    for (auto next = awaiting_.begin(); next != awaiting_.end();) {
        const auto awaiting = next++;
        if (isDone(*awaiting)) {
            endAwaiting(awaiting, Common::ErrorCode::None);
            hasEnded = true;
        }
    }
    if (hasEnded || !isAnew) {
        inDoubt_.erase(id->second);
        launchControl_.packageUpgraded(id->second);
    }
}

// Of one package, or of all. The package manager signals the end of an upgrade that it accepts later.
void Controller::doubt(const std::optional<std::string>& packageId) {
    for (const auto& awaiting : awaiting_) {
        if (!packageId || awaiting.packageId() == *packageId) {
            inDoubt_.insert(awaiting.id());
            isCheckDue_ = true;
        }
    }
    for (const auto& restarted : launchControl_.restartsAfterUpgrade()) {
        if (!packageId || restarted == *packageId) {
            inDoubt_.insert(restarted);
            isCheckDue_ = true;
        }
    }
}

// After a restart the package manager may have completed or discarded an upgrade without a signal. A removed
// package may be installed again already.
asio::awaitable<void> Controller::checkUpgrades(std::optional<std::string> packageId) {
    doubt(packageId);
    co_await checkDoubts();
}

asio::awaitable<void> Controller::checkDoubts() {
    if (std::exchange(isChecking_, true)) {
        if (doubted_) {
            doubted_->set();
        }
        co_return;
    }
    try {
        co_await settleDoubts();
    } catch (...) {
        isChecking_ = false; // the next doubt starts the check again
        throw;
    }
    isChecking_ = false;
    inDoubt_.clear();
}

// Queries the package list until it succeeds, and again if in the meantime there are new doubts, an upgrade
// is no longer prepared or the disk could not be read.
asio::awaitable<void> Controller::settleDoubts() {
    using std::chrono::seconds;
    for (seconds pause{1}; isCheckDue_ && !packagesInDoubt().empty();) {
        isCheckDue_ = false;
        try {
            const auto before = notPrepared(/*isUnknownIncluded=*/false);
            const auto packages =
                co_await zul_.getPackageList(Common::TimePoint::clock::now() + Common::defaultTimeout);
            // Another upgrade of the package may have been prepared since then.
            for (const auto& id : notPrepared(/*isUnknownIncluded=*/false)) {
                if (before.contains(id)) {
                    settle(id, *packages);
                }
            }
            if (notPrepared(/*isUnknownIncluded=*/true).empty()) {
                continue;
            }
            // It recovers after it took its name, or completes an upgrade now: its list may be an older one.
        } catch (const std::exception& error) {
            Common::logFailure(Common::LogLevel::Warning, "couldn't check the awaiting upgrades", error);
        }
        if (isCheckDue_) { // new doubts
            pause = seconds(1);
        }
        const auto doubted = doubted_ = std::make_shared<Common::Event>(loop_.context());
        const bool isAnew = co_await doubted->wait(Common::TimePoint::clock::now() + pause);
        pause = isAnew ? seconds(1) : std::min(pause * 2, seconds(30));
        isCheckDue_ = true;
    }
}

std::set<std::string> Controller::packagesInDoubt() const {
    std::set<std::string> packages;
    for (const auto& awaiting : awaiting_) {
        if (inDoubt_.contains(awaiting.id())) {
            packages.insert(awaiting.packageId());
        }
    }
    for (const auto& packageId : launchControl_.restartsAfterUpgrade()) {
        if (inDoubt_.contains(packageId)) {
            packages.insert(packageId);
        }
    }
    return packages;
}

// Reads the disk first, then the list: an upgrade completed in between is then in the list.
std::set<std::string> Controller::notPrepared(bool isUnknownIncluded) {
    const auto& database = launchControl_.database();
    if (!database) {
        throw Common::Error(Common::ErrorCode::Filesystem, "the package database's location is unknown");
    }
    auto packages = packagesInDoubt();
    std::erase_if(packages, [&](const std::string& packageId) {
        try {
            return database->hasPreparedNextVersion(packageId);
        } catch (const std::exception& error) {
            Common::logWarning() << error;
            return !isUnknownIncluded;
        }
    });
    return packages;
}

void Controller::settle(const std::string& packageId,
                        const std::vector<Common::PackageProperties>& packages) {
    const auto package = std::find_if(packages.begin(), packages.end(), [&](const auto& properties) {
        return valueOf(properties, Keys::id) == packageId;
    });
    bool isInDoubt = inDoubt_.erase(packageId) > 0;
    for (auto next = awaiting_.begin(); next != awaiting_.end();) {
        const auto awaiting = next++;
        if (awaiting->packageId() != packageId || inDoubt_.erase(awaiting->id()) == 0) {
            continue;
        }
        isInDoubt = true;
        if (package == packages.end()) {
            endAwaiting(awaiting, Common::ErrorCode::PackageNotExist);
        } else if (valueOf(*package, Keys::version) != awaiting->packageVersion()) {
            endAwaiting(awaiting, Common::ErrorCode::Internal);
        } else {
            endAwaiting(awaiting, Common::ErrorCode::None);
        }
    }
    if (isInDoubt) {
        launchControl_.endRestarts(packageId, package != packages.end());
    }
}

} // namespace Core
