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

/// Sends the statuses of operations to their initiators: in order for each initiator, each status once, and
/// only while its bus name belongs to the same application. Different initiators do not wait for each other.
/// Loop's thread only.
class StatusAnnouncer {
public:
    /// Sends one status to the initiator's bus name. Throws sdbus::Error.
    using Send = std::function<void(const Core::Operation&)>;
    using Connection = std::shared_ptr<sdbus::IConnection>;

    /// The first three must outlive this object.
    /// @param controller  is informed whether the end of an operation was reported
    StatusAnnouncer(Common::BusConnection& session, Common::CallerIdentification& identification,
                    Core::Controller& controller, Send send);
    StatusAnnouncer(const StatusAnnouncer&) = delete;
    StatusAnnouncer& operator=(const StatusAnnouncer&) = delete;

    /// The status hook: queues a copy of the operation.
    void add(const Core::Operation& operation);

    /// Returns when the statuses queued so far for a bus name have been sent or could not be sent. At the
    /// deadline, at least half a second from now, the initiator counts as unavailable.
    [[nodiscard]] asio::awaitable<void> flushed(std::string busName, Common::TimePoint deadline);
    /// The same for the completed operations of a package, and for all operations.
    [[nodiscard]] asio::awaitable<void> flushedEndsOf(std::string packageId);
    [[nodiscard]] asio::awaitable<void> flushedAll();

    /// From now on sends without identifying the initiators again, so that an identification service that
    /// hangs cannot delay the shutdown. This is safe because the bus never reuses a unique name.
    void hurry();

    /// Whether the unique name is still on the bus; then all messages sent to it before have arrived. False
    /// also if the bus does not reply or the connection that they were sent on was lost.
    [[nodiscard]] asio::awaitable<bool> isOnBus(std::string busName, Connection sentOn);

private:
    // Statuses of one initiator that share an identification: all that were added before it was requested.
    struct Batch;
    using BatchPointer = std::shared_ptr<Batch>;

    asio::awaitable<void> run(std::string busName);
    asio::awaitable<void> announce(BatchPointer batch);
    asio::awaitable<void> identify(BatchPointer batch);
    bool sendOrStore(const Core::Operation& operation, const Batch& batch);
    asio::awaitable<void> confirm(std::vector<Core::Operation> ends, Connection sentOn);
    static asio::awaitable<void> flushed(std::vector<BatchPointer> batches);
    [[nodiscard]] std::vector<BatchPointer> batches(const std::function<bool(const Batch&)>& isMeant) const;

    Common::BusConnection& session_;
    Common::Loop& loop_;
    Common::CallerIdentification& identification_;
    Core::Controller& controller_;
    Send send_;
    Common::RemoteObject bus_;
    bool isHurrying_ = false;
    std::unordered_map<std::string, std::deque<BatchPointer>>
        batches_; // by bus name; the first one is being announced
};

} // namespace Daemon
