#pragma once

#include "common/bus/CallerIdentity.h"
#include "core/Controller.h"

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Daemon {

/// Sends the statuses of operations to their initiators: those of one initiator in their order, each once,
/// and only while its bus name belongs to the same application. Different initiators do not wait for each
/// other. Loop's thread only.
class StatusAnnouncer {
public:
    /// Sends one status, to its initiator's bus name alone. Throws sdbus::Error.
    using Send = std::function<void(const Core::Operation&)>;

    /// @param controller  learns what becomes of the ends of operations; outlives this object
    StatusAnnouncer(Common::BusConnection& session, Core::Controller& controller, Send send);
    StatusAnnouncer(const StatusAnnouncer&) = delete;
    StatusAnnouncer& operator=(const StatusAnnouncer&) = delete;

    /// The status hook: takes a copy of the operation as it is now.
    void add(const Core::Operation& operation);

    /// Returns when what was added so far for a bus name has been sent, or could not be. At the deadline,
    /// half a second from now at the earliest, the initiator counts as unavailable.
    [[nodiscard]] asio::awaitable<void> flushed(std::string busName, Common::TimePoint deadline);
    /// The same for the operations of a package that have ended, and for all.
    [[nodiscard]] asio::awaitable<void> flushedEndsOf(std::string packageId);
    [[nodiscard]] asio::awaitable<void> flushedAll();

    /// Sends from now on without identifying the initiators again: a service that hangs cannot hold up the
    /// end, and a unique name is never given twice.
    void hurry();

    /// Whether the unique name is still on the bus, so that what was sent to it before has arrived. A bus
    /// that does not say so counts as no.
    [[nodiscard]] asio::awaitable<bool> isOnBus(std::string busName);

private:
    // Statuses that share the question who has the initiator's name: all that were added before it was sent.
    struct Batch;
    using BatchPointer = std::shared_ptr<Batch>;

    asio::awaitable<void> run(std::string busName);
    asio::awaitable<void> announce(BatchPointer batch);
    asio::awaitable<void> identify(BatchPointer batch);
    bool sendOrStore(const Core::Operation& operation, const Batch& batch);
    asio::awaitable<void> confirm(std::vector<Core::Operation> ends);
    static asio::awaitable<void> flushed(std::vector<BatchPointer> batches);
    [[nodiscard]] std::vector<BatchPointer> batches(const std::function<bool(const Batch&)>& isMeant) const;

    Common::Loop& loop_;
    Core::Controller& controller_;
    Send send_;
    Common::CallerIdentification identification_;
    Common::RemoteObject bus_;
    bool isHurrying_ = false;
    std::unordered_map<std::string, std::deque<BatchPointer>>
        batches_; // by bus name; the first one is announced
};

} // namespace Daemon
