#include "core/Controller.h"

#include "common/Guard.h"
#include "common/Names.h"
#include "common/StartThread.h"

namespace Core {

Controller::Controller(std::unique_ptr<Common::BusClient> intents, std::unique_ptr<Common::BusClient> control)
    : announcer_([](const Operation& operation) { operation.announceStatus(); })
    , launchControl_(std::move(intents), std::move(control)) {
    zul_.addPackageUpgradedHandler(
        [this](const Common::PackageProperties& package) { packageUpgraded(package); });
    worker_ = Common::startThread([this] { work(); });
}

Controller::~Controller() {
    {
        const std::lock_guard guard(stateLock_);
        stopping_ = true;
    }
    workerWakeUp_.notify_one();
    worker_.join();
    failQueued();
    // What is still to be announced is announced while the announcer is destroyed, after the package signals.
}

void Controller::enqueue(Operation operation) {
    operation.changeStatus(OperationStatus::Queued);
    std::list<Queued>::iterator entry;
    {
        const std::lock_guard guard(stateLock_);
        entry = queue_.insert(queue_.end(), {operation});
    }
    Common::guarded("couldn't announce a queued operation", [&] { operation.announceStatus(); });
    {
        const std::lock_guard guard(stateLock_);
        entry->announced = true;
    }
    workerWakeUp_.notify_one();
}

std::vector<Operation> Controller::operationsOf(const Common::CallerIdentity& initiator) const {
    std::vector<Operation> operations;
    const auto addIfOwn = [&](const Operation& operation) {
        if (operation.initiator().isSameApplication(initiator)) {
            operations.push_back(operation);
        }
    };
    const std::lock_guard guard(stateLock_);
    for (const auto& queued : queue_) {
        addIfOwn(queued.operation);
    }
    if (current_) {
        addIfOwn(*current_);
    }
    for (const auto& awaiting : awaiting_) {
        addIfOwn(awaiting);
    }
    return operations;
}

std::vector<Operation> Controller::takeCompletedOperations(const Common::CallerIdentity& initiator) {
    const std::lock_guard guard(completedLock_);
    auto entry = completed_.extract(initiator.key());
    return entry ? std::move(entry.mapped()) : std::vector<Operation>();
}

void Controller::addCompletedOperation(const Operation& operation) {
    const std::lock_guard guard(completedLock_);
    completed_[operation.initiator().key()].push_back(operation);
}

void Controller::work() {
    while (const auto operation = takeNext()) {
        try {
            carryOut(*operation);
        } catch (const Common::Error& error) {
            Common::logError() << error;
            failCurrent(error.code());
        } catch (const std::exception& error) {
            Common::logError() << error;
            failCurrent(Common::ErrorCode::Internal);
        }
    }
}

// Makes the head of the queue the current operation; nothing when the worker is to end.
std::optional<Operation> Controller::takeNext() {
    std::unique_lock guard(stateLock_);
    workerWakeUp_.wait(guard, [this] { return stopping_ || (!queue_.empty() && queue_.front().announced); });
    if (stopping_) {
        return {};
    }
    current_ = std::move(queue_.front().operation);
    queue_.pop_front();
    upgradeReported_ = false;
    change(*current_, OperationStatus::InProgress);
    return current_;
}

void Controller::carryOut(const Operation& operation) {
    switch (operation.type()) {
    case OperationType::Install:
        zul_.install(operation.packagePath());
        finishCurrent();
        return;
    case OperationType::Upgrade:
        zul_.install(operation.packagePath());
        awaitUpgrade();
        return;
    case OperationType::Remove:
        zul_.remove(operation.packageId());
        finishCurrent();
        return;
    }
    Common::logWarning() << "unexpected operation type: "
                         << std::to_string(static_cast<std::int32_t>(operation.type()));
}

void Controller::finishCurrent() {
    const std::lock_guard guard(stateLock_);
    change(*current_, OperationStatus::Finished);
    current_.reset();
}

// A report that came while the install call was running counts from here on.
void Controller::awaitUpgrade() {
    const std::lock_guard guard(stateLock_);
    change(*current_, OperationStatus::AwaitingUpgrade);
    if (upgradeReported_) {
        change(*current_, OperationStatus::Finished);
    } else {
        awaiting_.push_back(std::move(*current_));
    }
    current_.reset();
}

void Controller::failCurrent(Common::ErrorCode code) {
    const std::lock_guard guard(stateLock_);
    current_->setErrorCode(static_cast<std::uint32_t>(code));
    change(*current_, OperationStatus::Failed);
}

void Controller::failQueued() {
    const std::lock_guard guard(stateLock_);
    for (auto& queued : queue_) {
        queued.operation.setErrorCode(static_cast<std::uint32_t>(Common::ErrorCode::Internal));
        change(queued.operation, OperationStatus::Failed);
    }
    queue_.clear();
}

// Under stateLock_.
void Controller::change(Operation& operation, OperationStatus status) {
    operation.changeStatus(status);
    announcer_.add(operation);
}

void Controller::packageUpgraded(const Common::PackageProperties& package) {
    const auto id = package.find(Common::Names::PackageKeys::id);
    if (id == package.end()) {
        Common::logWarning() << "couldn't retrieve package id from upgraded package";
        return;
    }
    finishUpgradesOf(id->second);
    launchControl_.packageUpgraded(id->second);
}

void Controller::finishUpgradesOf(const std::string& packageId) {
    const std::lock_guard guard(stateLock_);
    if (current_ && current_->status() == OperationStatus::InProgress && current_->packageId() == packageId) {
        upgradeReported_ = true;
    }
    for (auto awaiting = awaiting_.begin(); awaiting != awaiting_.end();) {
        if (awaiting->packageId() == packageId) {
            change(*awaiting, OperationStatus::Finished);
            awaiting = awaiting_.erase(awaiting);
        } else {
            ++awaiting;
        }
    }
}

} // namespace Core
