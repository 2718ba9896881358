#pragma once

#include "tools/vendaractl/OperationView.h"
#include "tools/vendaractl/ServiceClient.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Vendaractl {

/// Begins operations and follows them to their ends: by the service's signals and, because a signal may be
/// missed, by asking the service whenever nothing has been heard for a while. Throws what ServiceClient
/// throws.
class Follower {
public:
    using Begin = std::function<Common::OperationRecord(ServiceClient&)>;

    explicit Follower(std::unique_ptr<OperationView> view);

    /// Has the service begin an operation; what it refuses is shown and counts as a failure.
    /// @param subject  the file or package
    void begin(const std::string& subject, const Begin& begin);

    /// Waits until every operation has ended.
    void follow();

    /// Whether everything that was begun has been taken and, as far as it has been followed, has not failed.
    [[nodiscard]] bool succeeded() const { return !failed_; }

private:
    using Clock = std::chrono::steady_clock;
    struct Followed {
        Common::OperationRecord record;
        int absences = 0;
        bool lost = false;
    };

    [[nodiscard]] bool allEnded() const;
    void heard(const Common::OperationRecord& operation);
    void show(Followed& followed, const Common::OperationRecord& news);
    void serviceChanged(bool present);
    void ask();
    void answered(const Properties* properties);
    void compare(Followed& followed, const Properties& properties);

    std::unique_ptr<OperationView> view_;
    std::vector<Followed> operations_;
    bool failed_ = false;
    bool asking_ = false;
    Clock::duration patience_{};
    Clock::time_point askAt_{};
    // Last: its destruction comes first, and no listener is called afterwards.
    ServiceClient client_;
};

} // namespace Vendaractl
