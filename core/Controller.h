#pragma once

#include "core/LaunchControl.h"
#include "core/Operation.h"
#include "core/ZulProxy.h"

#include <cstddef>
#include <deque>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace Core {

/// Executes operations through the package manager, one at a time in the order of their arrival. Stores all
/// operations until they are completed and their initiators have been informed.
///
/// The state changes first, then the status hook is called; the hook must not change the controller. Loop's
/// thread only; only the coroutines wait.
class Controller {
public:
    /// Connects to the package manager and subscribes to the runtime manager's signal; blocks for both buses.
    /// Throws sdbus::Error when there is no system bus, and with the name "norvane.Vendara.Error" when the
    /// subscription is refused.
    explicit Controller(Common::BusConnection& session);
    Controller(const Controller&) = delete;
    Controller& operator=(const Controller&) = delete;

    /// For the package list, and for adding handlers of the package signals. The controller's own handler of
    /// upgrades is called first.
    [[nodiscard]] ZulProxy& packageManager() { return zul_; }
    [[nodiscard]] LaunchControl& launchControl() { return launchControl_; }

    /// Whether an application has maximumOperations, so that no further operation may be queued for it.
    [[nodiscard]] bool isFull(const Common::CallerIdentity& initiator) const;

    /// Queues a copy of the operation, with the status Queued.
    void enqueue(Operation operation);

    /// The application's operations that are not completed: the queued ones in order, the running one and
    /// those awaiting their upgrade. A failed one stays listed until the next one runs. Completed operations
    /// that were not reported yet follow.
    [[nodiscard]] std::vector<Operation> operationsOf(const Common::CallerIdentity& initiator) const;

    /// Removes and returns the operations that addCompletedOperation() stored for the application, oldest
    /// first.
    [[nodiscard]] std::vector<Operation> takeCompletedOperations(const Common::CallerIdentity& initiator);

    /// Stores a completed operation that could not be reported to its initiator. If an application has more
    /// than maximumCompleted, the oldest one is dropped with a line in the log.
    void addCompletedOperation(const Operation& operation);

    /// Stores operations of takeCompletedOperations() again, because they could not be reported.
    void returnCompletedOperations(const std::vector<Operation>& operations);

    /// Removes a completed operation: it was reported to its initiator.
    void reported(const Operation& operation);

    /// Waits for the running operation, then fails the queued ones in order with code 2. No further operation
    /// is executed.
    [[nodiscard]] asio::awaitable<void> finish();

    /// If the upgrade of this package was signalled before its install call returned, waits until the
    /// operation has its status.
    [[nodiscard]] asio::awaitable<void> upgradeSettled(std::string packageId);

    static constexpr std::size_t maximumOperations = 20000;
    static constexpr std::size_t maximumCompleted = 10000;

private:
    asio::awaitable<void> work();
    void takeNext();
    asio::awaitable<void> carryOut();
    asio::awaitable<void> callPackageManager();
    void finishCurrent();
    void awaitUpgrade();
    void endAwaiting(std::list<Operation>::iterator awaiting, Common::ErrorCode code);
    void uncount(const Operation& operation);
    void packageUpgraded(const Common::PackageProperties& package, bool isAnew);
    void doubt(const std::optional<std::string>& packageId);
    asio::awaitable<void> checkUpgrades(std::optional<std::string> packageId = {});
    asio::awaitable<void> checkDoubts();
    asio::awaitable<void> settleDoubts();
    [[nodiscard]] std::set<std::string> packagesInDoubt() const;
    [[nodiscard]] std::set<std::string> notPrepared(bool isUnknownIncluded);
    void settle(const std::string& packageId, const std::vector<Common::PackageProperties>& packages);

    Common::Loop& loop_;
    std::list<Operation> queue_;
    std::optional<Operation> current_;       // kept after a failure until the next one runs
    bool isCurrentReported_ = false;         // after a failure
    bool upgradeReported_ = false;           // while current_'s install call was running
    std::shared_ptr<Common::Event> running_; // while the call for current_ runs
    bool isWorking_ = false;
    bool isFinishing_ = false;
    bool isChecking_ = false;
    bool isCheckDue_ = false;                // the upgrades in doubt have to be checked again
    std::shared_ptr<Common::Event> doubted_; // ends the pause before that
    std::list<Operation> awaiting_;
    // The ids of awaiting operations, and the packages of restarts that wait for an upgrade, whose package
    // was removed or whose package manager has restarted since, or may have been recovering.
    std::set<std::string> inDoubt_;
    std::unordered_map<std::string, Operation> ended_;    // by id, not reported
    std::unordered_map<std::string, std::size_t> counts_; // by application, of all operations above
    std::unordered_map<std::string, std::deque<Operation>> completed_;
    LaunchControl launchControl_;
    ZulProxy zul_;
};

} // namespace Core
