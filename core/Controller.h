#pragma once

#include "core/LaunchControl.h"
#include "core/Operation.h"
#include "core/TaskQueue.h"
#include "core/ZulProxy.h"

#include <condition_variable>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace Core {

/// Carries out operations through the package manager, one at a time in the order of their arrival, and knows
/// all that are not completed.
///
/// Locks. stateLock_ guards where every operation stands; completedLock_ guards the store of completed ones;
/// the task queues and the launch control have one lock each. They are held to read or change state only:
/// never while calling the package manager, the runtime manager, the database or a status hook. Under
/// stateLock_ the announcer's lock is taken, and no other pair is ever held together.
///
/// Threads. The worker calls the package manager; it waits for an announced operation and for replies, which
/// the package manager client's call connection delivers. The announcer calls the status hooks, which may
/// block; nobody waits for it, except the destructor. The package manager's signals arrive on a third thread,
/// which takes stateLock_ and waits for nobody. The launch control has a thread for the starts that signals
/// cause. Requests arrive on the service's thread: they may wait for replies, each delivered by the loop
/// thread of a client, and those threads take locks and wait for nobody. So there is no cycle.
///
/// Statuses. A change of status and its entry in the announcer's queue are made under one hold of stateLock_:
/// the hook sees the statuses of an operation in the order of the changes, each once, and whoever learns of
/// one finds the state changed already. Queued alone is announced by enqueue() itself; the worker leaves an
/// operation alone until that is done.
///
/// Every function may be called by any thread and by a status hook, and returns without waiting for another
/// service, unless it says something else.
class Controller {
public:
    /// Connects to the package manager, subscribes to the runtime manager and starts the threads.
    /// @param intents  the runtime manager's intents object, not started
    /// @param control  its control object, not started
    /// Throws sdbus::Error: without a system bus, or with the name "norvane.Vendara.Error" when the runtime
    /// manager's signal is refused.
    Controller(std::unique_ptr<Common::BusClient> intents, std::unique_ptr<Common::BusClient> control);
    /// Waits for the running operation, fails the queued ones with code 2 in their order, and has every
    /// status announced. Operations that await their upgrade are dropped. Owner only.
    ~Controller();
    Controller(const Controller&) = delete;
    Controller& operator=(const Controller&) = delete;

    /// For the package list, and for adding handlers of the package signals before start().
    [[nodiscard]] ZulProxy& packageManager() { return zul_; }

    /// Starts receiving the package manager's signals. Owner only, once.
    void start() { zul_.start(); }

    /// Queues a copy of the operation. Its hook is called with the status Queued before this returns.
    void enqueue(Operation operation);

    /// The application's operations that are not completed: queued ones in their order, the running one,
    /// those that await their upgrade. One that failed stays among them until the next one runs.
    [[nodiscard]] std::vector<Operation> operationsOf(const Common::CallerIdentity& initiator) const;

    /// Hands over and forgets what addCompletedOperation() stored for the application, oldest first.
    [[nodiscard]] std::vector<Operation> takeCompletedOperations(const Common::CallerIdentity& initiator);

    /// Keeps a completed operation whose initiator could not be told of its end.
    void addCompletedOperation(const Operation& operation);

    /// See LaunchControl::startApplication().
    void startApplication(const std::string& packageId) { launchControl_.startApplication(packageId); }
    /// See LaunchControl::restartApplication().
    void restartApplication(const std::string& packageId) { launchControl_.restartApplication(packageId); }

private:
    struct Queued {
        Operation operation;
        bool announced = false;
    };

    void work();
    [[nodiscard]] std::optional<Operation> takeNext();
    void carryOut(const Operation& operation);
    void finishCurrent();
    void awaitUpgrade();
    void failCurrent(Common::ErrorCode code);
    void failQueued();
    void change(Operation& operation, OperationStatus status);
    void packageUpgraded(const Common::PackageProperties& package);
    void finishUpgradesOf(const std::string& packageId);

    mutable std::mutex stateLock_; // guards all down to stopping_
    std::condition_variable workerWakeUp_;
    std::list<Queued> queue_;
    std::optional<Operation> current_; // stays after a failure, until the next one is taken
    bool upgradeReported_ = false;     // while current_'s install call was running
    std::list<Operation> awaiting_;
    bool stopping_ = false;

    std::mutex completedLock_; // guards completed_
    std::unordered_map<std::string, std::vector<Operation>> completed_;

    // In this order: destruction ends the package signals first and the announcements last.
    TaskQueue<Operation> announcer_;
    LaunchControl launchControl_;
    ZulProxy zul_;
    std::thread worker_;
};

} // namespace Core
