#pragma once

#include "common/Error.h"

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace Vendara {

/// What an operation does. The numbers are those of the bus interface.
enum class OperationType : std::int32_t { Install = 0, Upgrade = 1, Remove = 2 };

/// Where an operation stands. The numbers are those of the bus interface.
enum class OperationStatus : std::int32_t {
    Queued = 0,
    InProgress = 10,
    AwaitingUpgrade = 90,
    Finished = 100,
    Failed = 101,
};

struct Operation {
    std::string id;
    std::string packageId;
    OperationType type{};
    OperationStatus status{};
    Common::ErrorCode errorCode{}; ///< None while nothing failed

    /// Whether the status is final.
    [[nodiscard]] bool hasEnded() const {
        return status == OperationStatus::Finished || status == OperationStatus::Failed;
    }
};

/// A value of a type that Package::extra does not hold: its D-Bus signature.
struct OtherValue {
    std::string signature;
};

struct Package {
    using Value = std::variant<OtherValue, std::string, bool, std::int32_t, std::uint32_t, std::int64_t,
                               std::uint64_t, std::vector<std::string>>;
    std::string id;
    std::string version;
    std::string certificateSubgroup;
    std::string certificateId;
    std::map<std::string, Value> extra;
};

/// The service's state as the calling application sees it.
struct Properties {
    std::string architecture;
    std::string quenraVersion;
    std::vector<Operation> operations;          ///< those whose end was not reported
    std::vector<Operation> completedOperations; ///< each reported once
    std::vector<Package> packages;
};

/// An error code as a phrase, also one that is not assigned.
[[nodiscard]] std::string describe(Common::ErrorCode code);

/// "install", "upgrade" or "remove"; "type N" for another number N.
[[nodiscard]] std::string nameOf(OperationType type);
/// "queued", "in progress", "awaiting upgrade", "finished" or "failed"; "status N" for another number N.
[[nodiscard]] std::string nameOf(OperationStatus status);

} // namespace Vendara
