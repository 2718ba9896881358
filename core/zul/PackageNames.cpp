#include "core/zul/PackageNames.h"

#include "common/Error.h"
#include "common/Files.h"

namespace Core::ZUL {

using Common::Error;
using Common::ErrorCode;

std::string directoryName(const std::string& packageId) {
    auto name = packageId.starts_with('/') ? packageId.substr(1) : packageId;
    if (!Common::isOrdinaryName(name)) {
        throw Error(ErrorCode::BadPackageID, "package identifier can't be a directory's name: " + packageId);
    }
    return name;
}

void requireOrdinaryNames(const Package& package) {
    static_cast<void>(directoryName(package.id()));
    const auto& version = package.version();
    if (!Common::isOrdinaryName(version) || version == "current" || version == "next" || version == "prev") {
        throw Error(ErrorCode::BadPackage, "couldn't parse package version: " + version);
    }
    for (const auto& name : {package.orgName(), package.appName()}) {
        if (name && !Common::isOrdinaryName(*name)) {
            throw Error(ErrorCode::BadPackage, "application name can't be a directory's name: " + *name);
        }
    }
}

} // namespace Core::ZUL
