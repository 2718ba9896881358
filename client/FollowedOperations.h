#pragma once

#include "client/Client.h"

#include <set>
#include <utility>
#include <vector>

namespace Vendara {

/// The operations that a client follows: stores their statuses and calls the listener. Makes no bus calls.
/// Exceptions of the listener are passed on.
class FollowedOperations {
public:
    explicit FollowedOperations(Listener& listener)
        : listener_(listener) {}

    /// Handles a status from a signal, a reply, or the service's lists; it may have been received before.
    /// @return whether the status is new
    bool update(const Operation& news);
    /// Follows an operation of another connection; see Client::attach().
    void attach(const Operation& operation);
    /// Compares with the service's lists. An operation that is no longer listed has ended.
    /// @return whether a status is new
    bool compare(const Properties& properties);

    /// Called before the lists are read: they include the changes announced until now.
    void forgetAnnouncements() { announcements_.clear(); }
    /// Handles the announcement of a package's change.
    /// @return whether an attached operation may have caused it
    bool announced(OperationType type, const std::string& packageId);

    /// Reports each upgrade that waits for its application, once.
    void reportWaiting();

    [[nodiscard]] std::vector<Operation> pending() const;
    [[nodiscard]] bool allEnded() const;
    /// Whether one of them failed or was lost.
    [[nodiscard]] bool hasFailed() const { return hasFailed_; }
    /// Whether an attached operation may fail and be listed for a short time only, until the next one begins.
    [[nodiscard]] bool mayFailUnnoticed() const;

private:
    struct Followed {
        Operation operation;
        int absences = 0;
        bool isLost = false;
        bool isAttached = false;
        bool isAnnounced = false; // the change of its package
        bool isKnownToWait = false;

        [[nodiscard]] bool isDone() const { return isLost || operation.hasEnded(); }
    };

    [[nodiscard]] std::vector<Followed>::iterator find(const std::string& id);
    bool compare(Followed& followed, const Properties& properties);

    Listener& listener_;
    std::vector<Followed> operations_;
    std::set<std::pair<OperationType, std::string>> announcements_;
    bool hasFailed_ = false;
};

} // namespace Vendara
