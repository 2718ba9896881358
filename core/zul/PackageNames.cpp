#include "core/zul/PackageNames.h"

#include "common/BusText.h"
#include "common/Error.h"
#include "common/Files.h"
#include "common/PackageId.h"

namespace Core::ZUL {

using Common::Error;
using Common::ErrorCode;

namespace {

bool isOrdinaryText(const std::string& name) {
    return Common::isOrdinaryName(name) && Common::isBusText(name);
}

} // namespace

std::string directoryName(const std::string& packageId) {
    auto name = packageId.starts_with('/') ? packageId.substr(1) : packageId;
    Common::requirePackageId(name);
    return name;
}

void requireOrdinaryNames(const Package& package) {
    static_cast<void>(directoryName(package.id()));
    const auto& version = package.version();
    if (!isOrdinaryText(version) || version == "current" || version == "next" || version == "prev") {
        throw Error(ErrorCode::BadPackage, "couldn't parse package version: " + version);
    }
    for (const auto& name : {package.orgName(), package.appName()}) {
        if (name && !isOrdinaryText(*name)) {
            throw Error(ErrorCode::BadPackage, "application name can't be a directory's name: " + *name);
        }
    }
}

} // namespace Core::ZUL
