#include "tools/vendaractl/Text.h"

#include "common/Utf8.h"

#include <cwchar>

namespace Vendaractl {

namespace {

std::size_t columnsOf(const Common::Utf8Character& character) {
    // What the C library does not know is counted as wide: too short a line does no harm.
    const int width = wcwidth(static_cast<wchar_t>(character.code));
    return width < 0 ? 2 : static_cast<std::size_t>(width);
}

} // namespace

std::size_t columnsOf(std::string_view text) {
    std::size_t columns = 0;
    while (!text.empty()) {
        const auto character = Common::decodeUtf8(text);
        columns += columnsOf(character);
        text.remove_prefix(character.length);
    }
    return columns;
}

std::string fitted(std::string_view text, std::size_t columns) {
    std::size_t length = 0;
    std::size_t used = 0;
    while (length < text.size()) {
        const auto character = Common::decodeUtf8(text.substr(length));
        used += columnsOf(character);
        if (used > columns) {
            break;
        }
        length += character.length;
    }
    return std::string(text.substr(0, length));
}

std::string describe(Common::ErrorCode code) {
    using Common::ErrorCode;
    // No default: the compiler misses a code that has no words.
    switch (code) {
    case ErrorCode::None:
        return "no error";
    case ErrorCode::Filesystem:
        return "a file could not be written or removed; the disk may be full";
    case ErrorCode::Internal:
        return "an internal failure of the service or the package manager";
    case ErrorCode::FileNotFound:
        return "the package manager could not find the file";
    case ErrorCode::BadPackage:
        return "the file is damaged or not a package";
    case ErrorCode::BadPackageID:
        return "the package's identifier is not allowed";
    case ErrorCode::BadPackageArchitecture:
        return "the package is made for another architecture";
    case ErrorCode::BadPackageSignature:
        return "the package's signature is missing, wrong or not trusted";
    case ErrorCode::DowngradeAttempt:
        return "the same or a newer version is installed";
    case ErrorCode::UpgradeAlreadyPrepared:
        return "an upgrade to this version is already prepared";
    case ErrorCode::PackageNotExist:
        return "the package is not installed";
    case ErrorCode::CorruptedInstalledPackage:
        return "the installed package is damaged";
    case ErrorCode::UnauthorizedAccess:
        return "the package manager does not allow it";
    case ErrorCode::SystemPackageInstallationAttempt:
        return "the package belongs to the operating system";
    case ErrorCode::PackagesWithoutSourceNotAllowed:
        return "packages without a source are not allowed";
    case ErrorCode::SourceRejectedByAdministrator:
        return "the administrator rejected the package's source";
    case ErrorCode::UserNotAuthorizedToManageTrustedSources:
        return "the user may not manage trusted sources";
    }
    return "an unknown error";
}

std::string nameOf(Core::OperationType type) {
    switch (type) {
    case Core::OperationType::Install:
        return "install";
    case Core::OperationType::Upgrade:
        return "upgrade";
    case Core::OperationType::Remove:
        return "remove";
    }
    return "type " + std::to_string(static_cast<std::int32_t>(type));
}

std::string nameOf(Core::OperationStatus status) {
    switch (status) {
    case Core::OperationStatus::Queued:
        return "queued";
    case Core::OperationStatus::InProgress:
        return "in progress";
    case Core::OperationStatus::AwaitingUpgrade:
        return "awaiting upgrade";
    case Core::OperationStatus::Finished:
        return "finished";
    case Core::OperationStatus::Failed:
        return "failed";
    }
    return "status " + std::to_string(static_cast<std::int32_t>(status));
}

} // namespace Vendaractl
