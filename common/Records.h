#pragma once

#include "common/ErrorCode.h"

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace Common {

/// The kind of an operation. The numbers are part of the bus interface.
enum class OperationType : std::int32_t { Install = 0, Upgrade = 1, Remove = 2 };

/// The status of an operation. The numbers, including the gaps, are part of the bus interface.
enum class OperationStatus : std::int32_t {
    Queued = 0,
    InProgress = 10,
    AwaitingUpgrade = 90,
    Finished = 100,
    Failed = 101,
};

/// An operation as it is reported on the bus. A peer may send numbers that are not assigned.
struct OperationRecord {
    std::string id;
    std::string packageId;
    OperationType type{};
    OperationStatus status{};
    ErrorCode errorCode{}; ///< None while nothing failed

    bool operator==(const OperationRecord&) const = default;
    /// Whether the status is final.
    [[nodiscard]] bool hasEnded() const {
        return status == OperationStatus::Finished || status == OperationStatus::Failed;
    }
};

/// Stands for a value of a type that PackageRecord::extra cannot store: the type's D-Bus signature.
struct OtherValue {
    std::string signature;

    bool operator==(const OtherValue&) const = default;
};

/// An installed package as it is reported on the bus.
struct PackageRecord {
    using Value = std::variant<OtherValue, std::string, bool, std::int32_t, std::uint32_t, std::int64_t,
                               std::uint64_t, std::vector<std::string>>;
    std::string id;
    std::string version;
    std::string certificateSubgroup;
    std::string certificateId;
    std::map<std::string, Value> extra{};

    bool operator==(const PackageRecord&) const = default;
};

} // namespace Common
