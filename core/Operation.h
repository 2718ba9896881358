#pragma once

#include "common/Records.h"
#include "common/bus/CallerIdentity.h"

#include <cstdint>
#include <functional>
#include <string>

namespace Core {

using Common::OperationStatus;
using Common::OperationType;

/// An installation, upgrade or removal requested by an application. A plain value; copies have the same
/// status hook.
class Operation {
public:
    using StatusHook = std::function<void(const Operation&)>;

    /// Generates the identifier: a random UUID (RFC 4122, version 4) as 36 characters.
    Operation();

    [[nodiscard]] const std::string& id() const { return id_; }
    [[nodiscard]] const OperationType& type() const { return type_; }
    [[nodiscard]] const OperationStatus& status() const { return status_; }
    [[nodiscard]] const std::uint32_t& errorCode() const { return errorCode_; }
    [[nodiscard]] const Common::CallerIdentity& initiator() const { return initiator_; }
    [[nodiscard]] const std::string& packageId() const { return packageId_; }
    [[nodiscard]] const std::string& packagePath() const { return packagePath_; }
    /// The new version of an upgrade: "version-release" of the package file.
    [[nodiscard]] const std::string& packageVersion() const { return packageVersion_; }
    /// Whether the status is final: Finished or Failed.
    [[nodiscard]] bool isCompleted() const;
    /// The operation as it is reported to clients.
    [[nodiscard]] Common::OperationRecord record() const;

    void setType(OperationType type) { type_ = type; }
    void setErrorCode(std::uint32_t code) { errorCode_ = code; }
    void setInitiator(const Common::CallerIdentity& initiator) { initiator_ = initiator; }
    /// @param hook  must not be empty: throws std::bad_function_call
    void setStatusChanged(StatusHook hook);
    void setPackageId(std::string packageId) { packageId_ = std::move(packageId); }
    void setPackagePath(std::string path) { packagePath_ = std::move(path); }
    void setPackageVersion(std::string version) { packageVersion_ = std::move(version); }

    /// Stores the status, then calls the hook with this operation, even if the status is unchanged.
    void setStatus(OperationStatus status);

private:
    std::string id_;
    OperationType type_ = OperationType::Install;
    OperationStatus status_ = OperationStatus::Queued;
    std::uint32_t errorCode_ = 0;
    Common::CallerIdentity initiator_;
    StatusHook statusChanged_ = [](const Operation&) {};
    std::string packageId_;
    std::string packagePath_;
    std::string packageVersion_;
};

} // namespace Core
