#pragma once

#include <map>
#include <optional>
#include <string>

namespace Common::Rpm {
class Version;
} // namespace Common::Rpm

namespace Core::ZUL {

/// The content of a package record: dotted key ("section.key") to value, in byte order of the keys.
using PackageData = std::map<std::string, std::string>;

/// Identifies a version of a package. An immutable value; each of its names is valid as a path component and
/// as a D-Bus string, and is read back unchanged from a record. Any thread.
class PackageIdentity {
public:
    /// Throws Common::Error when a name is not a single path component and a valid D-Bus string, or begins or
    /// ends with a space: code BadPackageID for the identifier, of which one leading "/" is dropped;
    /// BadPackage for the others, and for a version with a name that the database itself uses.
    PackageIdentity(const std::string& id, std::string version, std::optional<std::string> orgName = {},
                    std::optional<std::string> appName = {});

    /// The rpm name; also the name of the package's directory in the database.
    [[nodiscard]] const std::string& id() const { return id_; }
    /// version "-" release, as in the package.
    [[nodiscard]] const std::string& version() const { return version_; }
    [[nodiscard]] const std::optional<std::string>& orgName() const { return orgName_; }
    [[nodiscard]] const std::optional<std::string>& appName() const { return appName_; }

private:
    std::string id_;
    std::string version_;
    std::optional<std::string> orgName_;
    std::optional<std::string> appName_;
};

/// The name of a package's directory: the identifier without one leading "/". Throws Common::Error, code
/// BadPackageID, as Common::requirePackageId() does. Any thread.
[[nodiscard]] std::string directoryName(const std::string& packageId);

/// The version as librpm orders it. Throws Common::Error, code BadPackage, when librpm cannot parse it.
[[nodiscard]] Common::Rpm::Version requireVersion(const PackageIdentity& package);

/// Requires that the package's version is higher than an existing one. Throws Common::Error:
/// UpgradeAlreadyPrepared for a prepared upgrade of the same version, otherwise DowngradeAttempt; and as
/// requireVersion() does.
void requireHigher(const PackageIdentity& package, const Common::Rpm::Version& existing, bool isPrepared);

} // namespace Core::ZUL
