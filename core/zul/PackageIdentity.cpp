#include "core/zul/PackageIdentity.h"

#include "common/BusText.h"
#include "common/Error.h"
#include "common/Files.h"
#include "common/PackageId.h"
#include "common/rpm/Version.h"

#include <utility>

namespace Core::ZUL {

using Common::Error;
using Common::ErrorCode;

namespace {

/// A record does not keep a space at either end of a value.
bool hasOuterSpace(const std::string& name) { return name.starts_with(' ') || name.ends_with(' '); }

bool isOrdinaryText(const std::string& name) {
    return Common::isOrdinaryName(name) && Common::isBusText(name) && !hasOuterSpace(name);
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
    if (hasOuterSpace(id_)) {
        throw Error(ErrorCode::BadPackageID, "package identifier begins or ends with a space: " + id_);
    }
    if (!isOrdinaryText(version_) || version_ == "current" || version_ == "next" || version_ == "prev") {
        throw Error(ErrorCode::BadPackage, "couldn't parse package version: " + version_);
    }
    for (const auto& name : {orgName_, appName_}) {
        if (name && !isOrdinaryText(*name)) {
            throw Error(ErrorCode::BadPackage, "application name can't be a directory's name: " + *name);
        }
    }
}

Common::Rpm::Version requireVersion(const PackageIdentity& package) {
    const auto version = Common::Rpm::Version::parse(package.version());
    if (!version) {
        throw Error(ErrorCode::BadPackage, "couldn't parse package version: " + package.version());
    }
    return *version;
}

void requireHigher(const PackageIdentity& package, const Common::Rpm::Version& existing, bool isPrepared) {
    const int order = requireVersion(package).compare(existing);
    if (order == 0 && isPrepared) {
        throw Error(ErrorCode::UpgradeAlreadyPrepared,
                    "package upgrade to version " + package.version() + " already prepared");
    }
    if (order <= 0) {
        throw Error(ErrorCode::DowngradeAttempt, "attempt to downgrade package from " + existing.text() +
                                                     " to " + package.version() + " version");
    }
}

} // namespace Core::ZUL
