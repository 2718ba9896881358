#pragma once

#include "core/zul/DatabaseLocation.h"
#include "core/zul/package/Package.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Core::ZUL {

class Mappings;
class PackageDirectory;
struct MappingPlan;

/// The on-disk database of installed packages.
///
///     root/ID/VERSION/     the unpacked payload, its record "quenra.pkg" and its mapping list "symlink.list"
///     root/ID/current      link to the installed VERSION directory
///     root/ID/next         link to the VERSION directory of a prepared upgrade
///
/// Files of an installed package are mapped into the system directories: by symbolic links or marked copies.
/// Packages are unpacked in the temporary directory, which must be on the same file system as the root;
/// recovery empties it.
///
/// A database is used by one process, one thread at a time. Failures are Common::Error. An operation throws
/// BadPackageID, before it changes anything, for an identifier that directoryName() refuses. An operation
/// that finds a damaged package removes it. A file that cannot be read is an error, not damage.
///
/// The process may be killed at any time: recoverDatabase(), one packages() and a refreshMappings() of every
/// package then restore complete packages with their mappings. A completed operation survives a power loss.
///
/// The systemd journal gets an entry, with the fields VENDARA_PACKAGE and VENDARA_VERSION, for each
/// installation, upgrade and removal, and for each package or prepared upgrade removed because its record was
/// damaged. Without a journal nothing is recorded. If journald is stopped and its queue is full, operations
/// wait for it.
class Database : public DatabaseLocation {
public:
    /// Reads the directories from the configuration file; see DatabaseLocation.
    explicit Database(const std::filesystem::path& configuration = configurationFile);

    /// Uses the given directories, for images and tests.
    /// @param systemRoot  the directory that takes the place of "/" in the paths of mappings. Mapping lists
    ///                    and messages have the paths of the running system, without this directory. The
    ///                    targets of links are paths below `root`, made absolute.
    Database(const std::filesystem::path& root, const std::filesystem::path& temp,
             const std::filesystem::path& systemRoot = "/");

    /// The directory of an installed package. Throws PackageNotExist; CorruptedInstalledPackage, after
    /// removing the package, when its "current" is missing or dangling.
    [[nodiscard]] std::filesystem::path packageDirectory(const std::string& packageId);

    /// Whether a version of the package is installed. Changes nothing, even if the package is damaged.
    /// Throws Filesystem when that cannot be read.
    [[nodiscard]] bool isInstalled(const std::string& packageId) const;

    /// The path of this version's directory, which need not exist.
    [[nodiscard]] std::filesystem::path versionedDirectory(const PackageIdentity& package) const;

    /// The record of the prepared upgrade or, without one, of the installed version. A prepared upgrade whose
    /// record is damaged is discarded. Throws CorruptedInstalledPackage, after removing the package, when
    /// the installed version's record is damaged.
    [[nodiscard]] PackageData readPackageData(const std::filesystem::path& packageDirectory);

    /// packageDirectory() and readPackageData() in one.
    [[nodiscard]] PackageData packageData(const std::string& packageId);

    /// The directories in the root, in directory order; none when there is no root. Any other entry is
    /// deleted. Throws Filesystem when the root cannot be read.
    [[nodiscard]] std::vector<std::filesystem::path> packageDirectories();

    /// Every package with its data, in directory order; damaged ones are removed and left out.
    [[nodiscard]] std::vector<std::pair<std::filesystem::path, PackageData>> packages();

    /// Removes the mappings and the directory of a damaged package. Failures are logged; when a mapping
    /// cannot be removed the directory stays, as with remove().
    void cleanupCorruptedPackage(const std::filesystem::path& packageDirectory) noexcept;

    /// Installs a package that is not installed; for an installed one call prepareUpgrade(). The extracted
    /// directory is renamed into the database. A failure after that removes the package, with any version
    /// installed before. Throws Internal when the directory does not exist, otherwise Filesystem, also when
    /// the root has a link with the package's name.
    /// @param entries  further entries of the record; they must include "certificate.id" and
    ///                 "certificate.subgroup", without which the record is read as damaged
    void install(const PackageIdentity& package, const PackageData& entries,
                 const std::filesystem::path& extracted);

    /// Installs a validated package file or, when a version of the package is installed, prepares the
    /// upgrade. The version is checked before anything is unpacked. The record gets the developer's key
    /// identifier as "certificate.id", and "system" or "developer" as "certificate.subgroup".
    /// Throws as checkUpgrade(), Package::extract(), prepareUpgrade() and install().
    /// @param file, attributes, watch  see Package::extract()
    /// @return whether an upgrade was prepared, to be completed by completeUpgrade()
    bool installFile(const Package& package, const std::filesystem::path& file,
                     const AttributeWriter& attributes = attachAttribute, const ExtractionWatch& watch = {});

    /// Prepares a higher version beside the installed one, which stays installed. Replaces an upgrade that
    /// was prepared before. Throws as checkUpgrade() and install().
    void prepareUpgrade(const PackageIdentity& package, const PackageData& entries,
                        const std::filesystem::path& extracted);

    /// Checks that the package's version is higher than the prepared version or, without one, the installed
    /// version. Throws PackageNotExist, CorruptedInstalledPackage, DowngradeAttempt, UpgradeAlreadyPrepared.
    void checkUpgrade(const PackageIdentity& package);

    /// Makes the prepared upgrade the installed version and deletes all other versions, except one whose
    /// mapping list cannot be read; recovery handles that later. Needs disk space only for new mappings.
    /// When the new version's mappings cannot be created, the old version is restored and the upgrade
    /// stays prepared; if that fails too, the package is left damaged. Throws Internal when no upgrade is
    /// prepared, otherwise Filesystem or what packageDirectory() throws.
    void completeUpgrade(const PackageIdentity& package);

    /// Removes a package with its mappings and any prepared upgrade. If a mapping cannot be removed, the
    /// package counts as removed, but its directory stays like that of a damaged package until a later
    /// operation on it can remove the mapping. Throws Filesystem or what packageDirectory() throws.
    void remove(const std::string& packageId);

    /// Repairs the database after a restart: empties the temporary directory, completes prepared upgrades,
    /// deletes versions that are not installed and packages that cannot be read. Does not change mappings:
    /// call refreshMappings() for each package afterwards. Failures of single packages are logged, not
    /// thrown.
    /// @return the identifiers of the packages whose upgrade was completed, for the caller to announce
    std::vector<std::string> recoverDatabase();

    /// Updates the mappings to the installed version: creates missing ones and removes those of this package
    /// that its version no longer has. Files of others are not changed.
    /// Throws what packageDirectory() throws, CorruptedInstalledPackage for a damaged record, and Filesystem
    /// when the package's directory is a link or a mapping cannot be created; the other mappings are created
    /// nevertheless.
    void refreshMappings(const std::string& packageId);

    /// Renames an extracted directory to the package's version directory. A version of that name that is
    /// neither installed nor prepared is replaced, and its mapping list kept; if that list cannot be read,
    /// the version with the list is kept under another name. Throws Internal when the extracted directory
    /// does not exist, Filesystem when it cannot be renamed, for example onto the installed version.
    std::filesystem::path moveToVersionedDirectory(const PackageIdentity& package,
                                                   const std::filesystem::path& extracted) const;

private:
    [[nodiscard]] PackageDirectory directoryOf(const std::string& packageId) const;
    [[nodiscard]] static std::optional<PackageData> readPrepared(const PackageDirectory& directory);
    [[nodiscard]] PackageData readInstalled(const PackageDirectory& directory);
    void placeNext(const PackageIdentity& package, const PackageData& entries,
                   const std::filesystem::path& extracted) const;
    void requireHigher(const PackageIdentity& package, const PackageDirectory& directory);
    bool removeMappingsOf(const PackageDirectory& directory, const std::string& message) const;
    void removeAll(const PackageDirectory& directory, bool isUnmapped) const;
    struct CompletionLinks;
    void putBack(const PackageDirectory& directory, const CompletionLinks& links) noexcept;
    void removeTempDirectory() const;
    static void recoverPackage(const PackageDirectory& directory, std::vector<std::string>& completed);

    std::shared_ptr<const Mappings> mappings_;
};

} // namespace Core::ZUL
