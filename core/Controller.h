#pragma once

#include "core/LaunchControl.h"
#include "core/Operation.h"
#include "core/ZulProxy.h"

#include <cstddef>
#include <deque>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace Core {

/// Carries out operations through the package manager, one at a time in the order of their arrival, and knows
/// all that are not completed, and those that are until their initiators know it.
///
/// The state changes first, then the status hook is called; the hook must not change the controller. Loop's
/// thread only; no function waits, but for the coroutines.
class Controller {
public:
    /// Connects to the package manager and subscribes to the runtime manager, waiting for the buses.
    /// Throws sdbus::Error: without a system bus, or with the name "norvane.Vendara.Error" when the runtime
    /// manager's signal is refused.
    explicit Controller(Common::BusConnection& session);
    Controller(const Controller&) = delete;
    Controller& operator=(const Controller&) = delete;

    /// For the package list, and for adding handlers of the package signals. The controller's own handler of
    /// upgrades is the first.
    [[nodiscard]] ZulProxy& packageManager() { return zul_; }
    [[nodiscard]] LaunchControl& launchControl() { return launchControl_; }

    /// Whether an application has maximumOperations: no further one may be queued for it.
    [[nodiscard]] bool isFull(const Common::CallerIdentity& initiator) const;

    /// Queues a copy of the operation, with the status Queued.
    void enqueue(Operation operation);

    /// The application's operations that are not completed: queued ones in their order, the running one,
    /// those that await their upgrade. One that failed stays among them until the next one runs. Behind them
    /// those that have ended and were not reported yet.
    [[nodiscard]] std::vector<Operation> operationsOf(const Common::CallerIdentity& initiator) const;

    /// Hands over and forgets what addCompletedOperation() stored for the application, oldest first.
    [[nodiscard]] std::vector<Operation> takeCompletedOperations(const Common::CallerIdentity& initiator);

    /// Stores a completed operation whose end could not be reported to its initiator. An application's store
    /// holds maximumCompleted; the oldest goes first, with a line in the log.
    void addCompletedOperation(const Operation& operation);

    /// Stores again what takeCompletedOperations() gave and could not be handed on.
    void returnCompletedOperations(const std::vector<Operation>& operations);

    /// Forgets a completed operation: its end was reported to its initiator.
    void reported(const Operation& operation);

    /// Fails the queued operations with code 2 in their order, when the running one has ended, and takes no
    /// further one from then on.
    [[nodiscard]] asio::awaitable<void> finish();

    /// Returns when an upgrade that was reported before its installation call has returned has got its
    /// status.
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
    void packageUpgraded(const Common::PackageProperties& package);
    asio::awaitable<void> checkAwaiting();
    [[nodiscard]] std::vector<std::string> notPrepared() const;
    void checkAwaiting(const std::string& id, const std::vector<Common::PackageProperties>& packages);

    Common::Loop& loop_;
    std::list<Operation> queue_;
    std::optional<Operation> current_;       // stays after a failure, until the next one is taken
    bool isCurrentReported_ = false;         // after a failure
    bool upgradeReported_ = false;           // while current_'s install call was running
    std::shared_ptr<Common::Event> running_; // while the call for current_ runs
    bool isWorking_ = false;
    bool isFinishing_ = false;
    bool isChecking_ = false;
    bool isCheckDue_ = false; // of the awaiting upgrades, once more
    std::list<Operation> awaiting_;
    std::unordered_map<std::string, Operation> ended_;    // by id, not reported
    std::unordered_map<std::string, std::size_t> counts_; // by application, of all the above
    std::unordered_map<std::string, std::deque<Operation>> completed_;
    LaunchControl launchControl_;
    ZulProxy zul_;
};

} // namespace Core
