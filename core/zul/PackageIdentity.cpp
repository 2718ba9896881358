#include "core/zul/PackageIdentity.h"

#include "common/BusText.h"
#include "common/Error.h"
#include "common/Files.h"
#include "common/PackageId.h"

#include <utility>

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

PackageIdentity::PackageIdentity(const std::string& id, std::string version,
                                 std::optional<std::string> orgName, std::optional<std::string> appName)
    : id_(directoryName(id))
    , version_(std::move(version))
    , orgName_(std::move(orgName))
    , appName_(std::move(appName)) {
    if (!isOrdinaryText(version_) || version_ == "current" || version_ == "next" || version_ == "prev") {
        throw Error(ErrorCode::BadPackage, "couldn't parse package version: " + version_);
    }
    for (const auto& name : {orgName_, appName_}) {
        if (name && !isOrdinaryText(*name)) {
            throw Error(ErrorCode::BadPackage, "application name can't be a directory's name: " + *name);
        }
    }
}

} // namespace Core::ZUL
