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
    std::vector<Operation> operations;          ///< not completed, or not yet reported as completed
    std::vector<Operation> completedOperations; ///< each reported once
    std::vector<Package> packages;
};

/// Describes an error code, also one that is not assigned. Any thread, as all of these functions.
[[nodiscard]] std::string describe(Common::ErrorCode code);

/// "install com.example.app: failed: the file is damaged or not a package (error 4)". Control characters are
/// escaped, so the text is safe for a terminal or one line of a log.
[[nodiscard]] std::string describe(const Operation& operation);

/// "install", "upgrade" or "remove"; "type N" for any other number N.
[[nodiscard]] std::string nameOf(OperationType type);
/// "queued", "in progress", "awaiting upgrade", "finished" or "failed"; "status N" for any other number N.
[[nodiscard]] std::string nameOf(OperationStatus status);

} // namespace Vendara
