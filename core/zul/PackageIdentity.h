#pragma once

#include <map>
#include <optional>
#include <string>

namespace Common::Rpm {
class Version;
} // namespace Common::Rpm

namespace Core::ZUL {

/// What a package record holds: dotted key ("section.key") to value, in byte order of the keys.
using PackageData = std::map<std::string, std::string>;

/// Which version of which package: an immutable value whose names can all be parts of paths and bus texts,
/// and are read back from a record as they were written. Any thread.
class PackageIdentity {
public:
    /// Throws Common::Error when a name is not one ordinary path component that a bus takes, or begins or
    /// ends with a space: code BadPackageID for the identifier, which may begin with one "/" that is dropped;
    /// BadPackage for the others, and for a version with a name that the database keeps for itself.
    PackageIdentity(const std::string& id, std::string version, std::optional<std::string> orgName = {},
                    std::optional<std::string> appName = {});

    /// The rpm name; also the name of the package's directory in the database.
    [[nodiscard]] const std::string& id() const { return id_; }
    /// version "-" release, as the package carries them.
    [[nodiscard]] const std::string& version() const { return version_; }
    [[nodiscard]] const std::optional<std::string>& orgName() const { return orgName_; }
    [[nodiscard]] const std::optional<std::string>& appName() const { return appName_; }

private:
    std::string id_;
    std::string version_;
    std::optional<std::string> orgName_;
    std::optional<std::string> appName_;
};

/// The name of a package's directory: the identifier without the one "/" it may begin with. Throws
/// Common::Error, code BadPackageID, for what Common::requirePackageId() refuses. Any thread.
[[nodiscard]] std::string directoryName(const std::string& packageId);

/// The version as librpm orders it. Throws Common::Error, code BadPackage, when librpm cannot parse it.
[[nodiscard]] Common::Rpm::Version requireVersion(const PackageIdentity& package);

/// Throws Common::Error unless the package's version is higher than an existing one: DowngradeAttempt, or
/// UpgradeAlreadyPrepared for the same version when that is prepared; as requireVersion().
void requireHigher(const PackageIdentity& package, const Common::Rpm::Version& existing, bool isPrepared);

} // namespace Core::ZUL
