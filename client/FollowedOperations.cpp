#include "client/FollowedOperations.h"

#include <algorithm>

namespace Vendara {

namespace {

// An operation that moves from one list of the service to the other is in neither for a short time.
constexpr int absencesOfALostOperation = 2;

} // namespace

bool FollowedOperations::update(const Operation& news) {
    auto followed = find(news.id);
    if (followed == operations_.end()) {
        operations_.push_back({news});
    } else {
        followed->absences = 0;
        if (news.status <= followed->operation.status || followed->operation.hasEnded()) {
            return false;
        }
        followed->operation = news;
    }
    hasFailed_ = hasFailed_ || news.status == OperationStatus::Failed;
    listener_.changed(news);
    return true;
}

void FollowedOperations::attach(const Operation& operation) {
    const auto followed = find(operation.id);
    followed->isAttached = true;
    followed->isAnnounced = announcements_.contains({operation.type, operation.packageId});
}

bool FollowedOperations::compare(const Properties& properties) {
    bool hasNews = false;
    for (auto& followed : operations_) {
        if (!followed.isDone()) {
            hasNews = compare(followed, properties) || hasNews;
        }
    }
    for (const auto& operation : properties.completedOperations) {
        if (find(operation.id) == operations_.end()) {
            listener_.earlier(operation);
        }
    }
    return hasNews;
}

bool FollowedOperations::compare(Followed& followed, const Properties& properties) {
    for (const auto* list : {&properties.completedOperations, &properties.operations}) {
        for (const auto& listed : *list) {
            if (listed.id == followed.operation.id) {
                return update(listed);
            }
        }
    }
    if (++followed.absences < absencesOfALostOperation) {
        return false;
    }
    if (followed.isAnnounced) {
        auto ended = followed.operation;
        ended.status = OperationStatus::Finished;
        return update(ended);
    }
    followed.isLost = true;
    hasFailed_ = true;
    listener_.lost(followed.operation);
    return false;
}

bool FollowedOperations::announced(OperationType type, const std::string& packageId) {
    announcements_.emplace(type, packageId);
    bool isAwaited = false;
    for (auto& followed : operations_) {
        const auto& operation = followed.operation;
        if (followed.isAttached && operation.type == type && operation.packageId == packageId) {
            followed.isAnnounced = true;
            isAwaited = true;
        }
    }
    return isAwaited;
}

void FollowedOperations::reportWaiting() {
    for (auto& followed : operations_) {
        if (followed.operation.status == OperationStatus::AwaitingUpgrade &&
            !std::exchange(followed.isKnownToWait, true)) {
            listener_.waits(followed.operation);
        }
    }
}

std::vector<Operation> FollowedOperations::pending() const {
    std::vector<Operation> operations;
    for (const auto& followed : operations_) {
        if (!followed.isDone()) {
            operations.push_back(followed.operation);
        }
    }
    return operations;
}

bool FollowedOperations::allEnded() const {
    return std::all_of(operations_.begin(), operations_.end(),
                       [](const auto& followed) { return followed.isDone(); });
}

bool FollowedOperations::mayFailUnnoticed() const {
    return std::any_of(operations_.begin(), operations_.end(), [](const auto& followed) {
        return followed.isAttached && !followed.isLost &&
               followed.operation.status < OperationStatus::AwaitingUpgrade;
    });
}

std::vector<FollowedOperations::Followed>::iterator FollowedOperations::find(const std::string& id) {
    return std::find_if(operations_.begin(), operations_.end(),
                        [&](const auto& followed) { return followed.operation.id == id; });
}

} // namespace Vendara
