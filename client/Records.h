#pragma once

#include "common/Records.h"

#include <string>
#include <vector>

namespace Vendara {

using Common::OperationStatus;
using Common::OperationType;
using Common::OtherValue;
using Operation = Common::OperationRecord;
using Package = Common::PackageRecord;

/// The service's state as the calling application sees it.
struct Properties {
    std::string architecture;
    std::string quenraVersion;                  ///< without the quotes of os-release(5)
    std::vector<Operation> operations;          ///< those whose end was not reported
    std::vector<Operation> completedOperations; ///< each reported once
    std::vector<Package> packages;
};

/// An error code as a phrase, also one that is not assigned.
[[nodiscard]] std::string describe(Common::ErrorCode code);

/// "install com.example.app: failed: the file is damaged or not a package (error 4)", safe for a terminal and
/// for one line of a log.
[[nodiscard]] std::string describe(const Operation& operation);

/// "install", "upgrade" or "remove"; "type N" for another number N.
[[nodiscard]] std::string nameOf(OperationType type);
/// "queued", "in progress", "awaiting upgrade", "finished" or "failed"; "status N" for another number N.
[[nodiscard]] std::string nameOf(OperationStatus status);

} // namespace Vendara
