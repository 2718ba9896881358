#include "client/Records.h"

#include "common/PrintableText.h"

#include <map>

namespace Vendara {

namespace {

template<typename Number>
std::string phraseFor(const std::map<Number, const char*>& phrases, Number number, const char* kind) {
    const auto phrase = phrases.find(number);
    return phrase == phrases.end() ? kind + std::to_string(static_cast<std::int64_t>(number))
                                   : phrase->second;
}

} // namespace

std::string describe(Common::ErrorCode code) {
    using Common::ErrorCode;
    static const std::map<ErrorCode, const char*> phrases{
        {ErrorCode::None, "no error"},
        {ErrorCode::Filesystem, "a file could not be written or removed; the disk may be full"},
        {ErrorCode::Internal, "an internal failure of the service or the package manager"},
        {ErrorCode::FileNotFound, "the package manager could not find the file"},
        {ErrorCode::BadPackage, "the file is damaged or not a package"},
        {ErrorCode::BadPackageID, "the package's identifier is not allowed"},
        {ErrorCode::BadPackageArchitecture, "the package is made for another architecture"},
        {ErrorCode::BadPackageSignature, "the package's signature is missing, wrong or not trusted"},
        {ErrorCode::DowngradeAttempt, "the same or a newer version is installed"},
        {ErrorCode::UpgradeAlreadyPrepared, "an upgrade to this version is already prepared"},
        {ErrorCode::PackageNotExist, "the package is not installed"},
        {ErrorCode::CorruptedInstalledPackage, "the installed package is damaged"},
        {ErrorCode::UnauthorizedAccess, "the package manager does not allow it"},
        {ErrorCode::SystemPackageInstallationAttempt, "the package belongs to the operating system"},
        {ErrorCode::PackagesWithoutSourceNotAllowed, "packages without a source are not allowed"},
        {ErrorCode::SourceRejectedByAdministrator, "the administrator rejected the package's source"},
        {ErrorCode::UserNotAuthorizedToManageTrustedSources, "the user may not manage trusted sources"},
    };
    const auto phrase = phrases.find(code);
    return phrase == phrases.end() ? "an unknown error" : phrase->second;
}

std::string describe(const Operation& operation) {
    auto text = nameOf(operation.type) + " " + Common::printable(operation.packageId) + ": " +
                nameOf(operation.status);
    if (operation.status == OperationStatus::Failed) {
        text += ": " + describe(operation.errorCode) + " (error " +
                std::to_string(static_cast<std::int32_t>(operation.errorCode)) + ")";
    }
    return text;
}

std::string nameOf(OperationType type) {
    return phraseFor<OperationType>({{OperationType::Install, "install"},
                                     {OperationType::Upgrade, "upgrade"},
                                     {OperationType::Remove, "remove"}},
                                    type, "type ");
}

std::string nameOf(OperationStatus status) {
    return phraseFor<OperationStatus>({{OperationStatus::Queued, "queued"},
                                       {OperationStatus::InProgress, "in progress"},
                                       {OperationStatus::AwaitingUpgrade, "awaiting upgrade"},
                                       {OperationStatus::Finished, "finished"},
                                       {OperationStatus::Failed, "failed"}},
                                      status, "status ");
}

} // namespace Vendara
