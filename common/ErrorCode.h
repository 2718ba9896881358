#pragma once

#include <cstdint>

namespace Common {

/// The kind of a failure, as clients see it in an operation's error code. The numbers are part of the bus
/// interface; 12 is unassigned and stays so.
enum class ErrorCode : std::uint32_t {
    None = 0,
    Filesystem = 1,
    Internal = 2,
    FileNotFound = 3,
    BadPackage = 4,
    BadPackageID = 5,
    BadPackageArchitecture = 6,
    BadPackageSignature = 7,
    DowngradeAttempt = 8,
    UpgradeAlreadyPrepared = 9,
    PackageNotExist = 10,
    CorruptedInstalledPackage = 11,
    UnauthorizedAccess = 13,
    SystemPackageInstallationAttempt = 14,
    PackagesWithoutSourceNotAllowed = 15,
    SourceRejectedByAdministrator = 16,
    UserNotAuthorizedToManageTrustedSources = 17,
};

} // namespace Common
