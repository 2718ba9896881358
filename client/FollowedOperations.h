#pragma once

#include "client/Client.h"

#include <set>
#include <utility>
#include <vector>

namespace Vendara {

/// The operations that a client follows: what is known of each, and what the listener is told. It knows no
/// bus. What the listener throws leaves the functions.
class FollowedOperations {
public:
    explicit FollowedOperations(Listener& listener)
        : listener_(listener) {}

    /// Takes a status, which may have arrived before: by a signal, a reply, or the service's lists.
    /// @return whether it is new
    bool update(const Operation& news);
    /// Follows an operation of another connection; see Client::attach().
    void attach(const Operation& operation);
    /// Compares with the service's lists, which end what they no longer have.
    /// @return whether a status was new
    bool compare(const Properties& properties);

    /// The lists that are about to be read have what was announced until now.
    void forgetAnnouncements() { announcements_.clear(); }
    /// A package was changed.
    /// @return whether an attached operation may have done that
    bool announced(OperationType type, const std::string& packageId);

    /// Reports each upgrade that waits for its application, once.
    void reportWaiting();

    [[nodiscard]] std::vector<Operation> pending() const;
    [[nodiscard]] bool allEnded() const;
    /// Whether one of them failed or was lost.
    [[nodiscard]] bool hasFailed() const { return hasFailed_; }
    /// Whether the end of an attached operation may be listed for a short time only: one that failed is
    /// listed until the next one begins.
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
