#include "tools/vendaractl/Follower.h"

#include <algorithm>

namespace Vendaractl {

namespace {

// How long nothing is heard before the service is asked; twice as long after each answer without news.
constexpr auto firstPatience = std::chrono::seconds(1);
constexpr std::chrono::seconds lastPatience = std::chrono::minutes(1);
constexpr auto tickInterval = std::chrono::milliseconds(100);
// An operation may be on its way from one list of the service to the other: one absence says nothing.
constexpr int absencesOfALostOperation = 2;

const Common::OperationRecord* find(const std::vector<Common::OperationRecord>& records,
                                    const std::string& id) {
    const auto found =
        std::find_if(records.begin(), records.end(), [&](const auto& record) { return idOf(record) == id; });
    return found == records.end() ? nullptr : &*found;
}

} // namespace

Follower::Follower(std::unique_ptr<OperationView> view)
    : view_(std::move(view))
    , client_({.operationChanged = [this](const auto& operation) { heard(operation); },
               .packageInstalled = {},
               .packageUpgraded = {},
               .packageRemoved = {},
               .serviceChanged = [this](bool present) { serviceChanged(present); }}) {}

void Follower::begin(const std::string& subject, const Begin& begin) {
    try {
        heard(begin(client_));
    } catch (const CallRefused& error) {
        failed_ = true;
        view_->refused(subject, error.what());
    }
}

void Follower::follow() {
    patience_ = firstPatience;
    askAt_ = Clock::now() + patience_;
    while (!allEnded()) {
        client_.process(tickInterval);
        if (!asking_ && Clock::now() >= askAt_) {
            ask();
        }
        view_->tick();
    }
}

bool Follower::allEnded() const {
    return std::all_of(operations_.begin(), operations_.end(),
                       [](const auto& followed) { return followed.lost || hasEnded(followed.record); });
}

// Statuses come to this connection alone, for what it began: the first one even before the reply that names
// the operation.
void Follower::heard(const Common::OperationRecord& operation) {
    patience_ = firstPatience;
    askAt_ = Clock::now() + patience_;
    for (auto& followed : operations_) {
        if (idOf(followed.record) == idOf(operation)) {
            show(followed, operation);
            return;
        }
    }
    operations_.push_back({operation});
    view_->changed(operation);
    failed_ = failed_ || statusOf(operation) == Core::OperationStatus::Failed;
}

// A reply may tell what a signal has already passed: statuses only grow.
void Follower::show(Followed& followed, const Common::OperationRecord& news) {
    followed.absences = 0;
    if (statusOf(news) <= statusOf(followed.record) || hasEnded(followed.record)) {
        return;
    }
    followed.record = news;
    view_->changed(news);
    failed_ = failed_ || statusOf(news) == Core::OperationStatus::Failed;
}

// The service keeps its operations in memory only: with it they are gone.
void Follower::serviceChanged(bool present) {
    if (allEnded()) {
        return;
    }
    if (!present) {
        throw ServiceAbsent("the service left the bus; the result of the operation is unknown");
    }
    askAt_ = Clock::now();
}

void Follower::ask() {
    asking_ = true;
    client_.askProperties([this](const Properties* properties) { answered(properties); });
}

void Follower::answered(const Properties* properties) {
    asking_ = false;
    patience_ = std::min<Clock::duration>(patience_ * 2, lastPatience);
    askAt_ = Clock::now() + patience_;
    if (properties == nullptr) {
        return;
    }
    for (auto& followed : operations_) {
        if (!followed.lost && !hasEnded(followed.record)) {
            compare(followed, *properties);
        }
    }
    for (const auto& operation : properties->completedOperations) {
        const bool own = std::any_of(operations_.begin(), operations_.end(), [&](const auto& followed) {
            return idOf(followed.record) == idOf(operation);
        });
        if (!own) {
            view_->earlier(operation);
        }
    }
}

void Follower::compare(Followed& followed, const Properties& properties) {
    const auto& id = idOf(followed.record);
    const auto* news = find(properties.completedOperations, id);
    if (news == nullptr) {
        news = find(properties.operations, id);
    }
    if (news != nullptr) {
        show(followed, Common::OperationRecord(*news));
    } else if (++followed.absences == absencesOfALostOperation) {
        followed.lost = true;
        failed_ = true;
        view_->lost(followed.record);
    }
}

} // namespace Vendaractl
