#include "daemon/StatusAnnouncer.h"

#include "common/LogLine.h"
#include "common/Names.h"

#include <algorithm>
#include <optional>

namespace Daemon {

namespace {

namespace MessageBus = Common::Names::MessageBus;

void warnNotSent(const std::string& reason) {
    Common::logWarning() << "couldn't send " << Common::Names::Vendara::operationStatusChanged << " signal";
    Common::logWarning() << reason;
}

} // namespace

struct StatusAnnouncer::Batch {
    explicit Batch(asio::io_context& loop)
        : identified(loop)
        , handled(loop) {}
    std::vector<Core::Operation> operations;
    std::optional<Common::CallerIdentity> owner; // of the bus name now
    bool isIdentityNeeded = true;
    Common::Event identified;
    Common::Event handled;
    bool isStarted = false;
};

StatusAnnouncer::StatusAnnouncer(Common::BusConnection& session, Common::CallerIdentification& identification,
                                 Core::Controller& controller, Send send)
    : session_(session)
    , loop_(session.loop())
    , identification_(identification)
    , controller_(controller)
    , send_(std::move(send))
    , bus_(session, MessageBus::service, MessageBus::objectPath, MessageBus::interface) {}

void StatusAnnouncer::add(const Core::Operation& operation) {
    const auto& busName = operation.initiator().busName();
    auto& lane = batches_[busName];
    const bool isRunning = !lane.empty();
    if (lane.empty() || lane.back()->isStarted) {
        lane.push_back(std::make_shared<Batch>(loop_.context()));
    }
    lane.back()->operations.push_back(operation);
    if (!isRunning) {
        loop_.spawn("couldn't announce statuses", run(busName));
    }
}

asio::awaitable<void> StatusAnnouncer::flushed(std::string busName, Common::TimePoint deadline) {
    const auto lane = batches_.find(busName);
    if (lane == batches_.end()) {
        co_return;
    }
    const auto last = lane->second.back();
    deadline = std::max(deadline, Common::TimePoint::clock::now() + std::chrono::milliseconds(500));
    bool isHandled = co_await last->handled.wait(deadline);
    while (!isHandled) {
        batches_.at(busName).front()->identified.set();
        isHandled =
            co_await last->handled.wait(Common::TimePoint::clock::now() + std::chrono::milliseconds(10));
    }
}

asio::awaitable<void> StatusAnnouncer::flushedEndsOf(std::string packageId) {
    return flushed(batches([&](const Batch& batch) {
        return std::any_of(batch.operations.begin(), batch.operations.end(),
                           [&](const Core::Operation& operation) {
                               return operation.isCompleted() && operation.packageId() == packageId;
                           });
    }));
}

asio::awaitable<void> StatusAnnouncer::flushedAll() {
    return flushed(batches([](const Batch& /*batch*/) { return true; }));
}

void StatusAnnouncer::hurry() {
    isHurrying_ = true;
    for (const auto& [busName, lane] : batches_) {
        lane.front()->isIdentityNeeded = lane.front()->owner.has_value();
        lane.front()->identified.set();
    }
}

asio::awaitable<void> StatusAnnouncer::run(std::string busName) {
    auto& lane = batches_.at(busName); // references stay valid when keys are added
    while (!lane.empty()) {
        const auto batch = lane.front();
        batch->isStarted = true;
        try {
            co_await announce(batch);
        } catch (const std::exception& error) {
            Common::logFailure(Common::LogLevel::Error, "couldn't announce statuses", error);
        }
        batch->handled.set();
        lane.pop_front();
    }
    batches_.erase(busName);
}

asio::awaitable<void> StatusAnnouncer::announce(BatchPointer batch) {
    batch->isIdentityNeeded = !isHurrying_;
    if (batch->isIdentityNeeded) {
        loop_.spawn("couldn't identify an initiator", identify(batch));
        co_await batch->identified.wait();
    }
    co_await session_.awaitConnection(Common::TimePoint::clock::now() + Common::defaultTimeout);
    const auto connection = session_.sharedBus();
    std::vector<Core::Operation> ends;
    for (const auto& operation : batch->operations) {
        if (sendOrStore(operation, *batch) && operation.isCompleted()) {
            ends.push_back(operation);
        }
    }
    if (!ends.empty()) {
        co_await confirm(std::move(ends), connection);
    }
}

asio::awaitable<void> StatusAnnouncer::identify(BatchPointer batch) {
    try {
        batch->owner =
            co_await identification_.identify(batch->operations.front().initiator().busName(),
                                              Common::TimePoint::clock::now() + Common::defaultTimeout);
    } catch (const Common::Error& error) {
        if (batch->isIdentityNeeded) {
            Common::logWarning() << error;
        }
    }
    batch->identified.set();
}

// @return whether it was sent
bool StatusAnnouncer::sendOrStore(const Core::Operation& operation, const Batch& batch) {
    if (batch.isIdentityNeeded && !(batch.owner && batch.owner->isSameApplication(operation.initiator()))) {
        warnNotSent("operation initiator is not dbus available");
    } else {
        try {
            send_(operation);
            return true;
        } catch (const sdbus::Error& error) {
            if (session_.isConnected(session_.sharedBus())) { // otherwise the loss is logged
                warnNotSent(error.getMessage());
            }
        }
    }
    if (operation.isCompleted()) {
        controller_.addCompletedOperation(operation);
    }
    return false;
}

// The name may have left before the signals reached the bus.
asio::awaitable<void> StatusAnnouncer::confirm(std::vector<Core::Operation> ends, Connection sentOn) {
    const bool wereSent = co_await isOnBus(ends.front().initiator().busName(), std::move(sentOn));
    for (const auto& operation : ends) {
        if (wereSent) {
            controller_.reported(operation);
        } else {
            controller_.addCompletedOperation(operation);
        }
    }
}

// The bus handles messages in order, so its reply means that all signals sent before were delivered.
asio::awaitable<bool> StatusAnnouncer::isOnBus(std::string busName, Connection sentOn) {
    try {
        const auto [isOwned] =
            co_await bus_.call<bool>(MessageBus::nameHasOwner, Common::defaultTimeout, busName);
        co_return (isOwned && session_.isConnected(sentOn));
    } catch (const sdbus::Error&) {
        co_return false;
    }
}

asio::awaitable<void> StatusAnnouncer::flushed(std::vector<BatchPointer> batches) {
    for (const auto& batch : batches) {
        co_await batch->handled.wait();
    }
}

std::vector<StatusAnnouncer::BatchPointer>
StatusAnnouncer::batches(const std::function<bool(const Batch&)>& isMeant) const {
    std::vector<BatchPointer> found;
    for (const auto& [busName, lane] : batches_) {
        std::copy_if(lane.begin(), lane.end(), std::back_inserter(found),
                     [&](const BatchPointer& batch) { return isMeant(*batch); });
    }
    return found;
}

} // namespace Daemon
