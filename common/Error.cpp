#include "common/Error.h"

#include "common/Names.h"

#include <array>

namespace Common {

namespace {

struct Row {
    ErrorCode code;
    std::string_view suffix;
};

// In the order in which names are matched. Internal has no row: all other names map to it.
constexpr std::array table{
    Row{ErrorCode::Filesystem, "Filesystem"},
    Row{ErrorCode::FileNotFound, "FileNotFound"},
    Row{ErrorCode::BadPackage, "BadPackage"},
    Row{ErrorCode::BadPackageID, "BadPackageID"},
    Row{ErrorCode::BadPackageArchitecture, "BadPackageArchitecture"},
    Row{ErrorCode::BadPackageSignature, "BadPackageSignature"},
    Row{ErrorCode::DowngradeAttempt, "DowngradeAttempt"},
    Row{ErrorCode::UpgradeAlreadyPrepared, "UpgradeAlreadyPrepared"},
    Row{ErrorCode::PackageNotExist, "PackageNotExist"},
    Row{ErrorCode::CorruptedInstalledPackage, "CorruptedInstalledPackage"},
    Row{ErrorCode::UnauthorizedAccess, "UnauthorizedAccess"},
    Row{ErrorCode::SystemPackageInstallationAttempt, "SystemPackageInstallationAttempt"},
    Row{ErrorCode::PackagesWithoutSourceNotAllowed, "PackagesWithoutSourceNotAllowed"},
    Row{ErrorCode::SourceRejectedByAdministrator, "SourceRejectedByAdministrator"},
    Row{ErrorCode::UserNotAuthorizedToManageTrustedSources, "UserNotAuthorizedToManageTrustedSources"},
};

// Every code up to the last one has a row, except None, Internal and the unassigned 12.
static_assert(table.size() ==
              static_cast<std::size_t>(ErrorCode::UserNotAuthorizedToManageTrustedSources) - 2);

} // namespace

ErrorCode errorCodeOf(std::string_view name) noexcept {
    if (name.empty()) {
        return ErrorCode::None;
    }
    if (name.substr(0, Names::Zul::errorPrefix.size()) == Names::Zul::errorPrefix) {
        name.remove_prefix(Names::Zul::errorPrefix.size());
        for (const auto& row : table) {
            if (row.suffix == name) {
                return row.code;
            }
        }
    }
    return ErrorCode::Internal;
}

std::string errorNameOf(ErrorCode code) {
    for (const auto& row : table) {
        if (row.code == code) {
            return Names::Zul::errorPrefix + std::string(row.suffix);
        }
    }
    return Names::Zul::errorPrefix + "Internal";
}

} // namespace Common
