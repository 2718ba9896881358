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
/// Files of an installed package appear in the system directories as mappings: symbolic links or marked
/// copies. The temporary directory, on the same file system as the root, is where packages are unpacked;
/// recovery empties it.
///
/// A database is used by one process, one thread at a time. Failures are Common::Error. Every operation that
/// takes an identifier throws BadPackageID, before it touches anything, for one that directoryName() refuses.
/// An operation that finds a package damaged removes it; what could not be read this time is an error, not
/// damage.
///
/// A process killed at any moment leaves a database that recoverDatabase(), one packages() and a
/// refreshMappings() of every package bring back to whole packages with their mappings. What an operation
/// reported as done survives the loss of power.
///
/// Installations, upgrades, removals, and packages and upgrades removed because their records were damaged
/// are entries in the systemd journal with the fields VENDARA_PACKAGE and VENDARA_VERSION. Without a journal
/// nothing is recorded; a journal that is stopped with a full queue is waited for.
class Database : public DatabaseLocation {
public:
    /// Takes the directories from the configuration file; see DatabaseLocation.
    explicit Database(const std::filesystem::path& configuration = configurationFile);

    /// Takes the directories as given, for images and tests.
    /// @param systemRoot  the directory that stands for "/" in every mapping's path. Mapping lists and
    ///                    messages name mappings as the running system will see them, without it. The links'
    ///                    targets are paths below `root` as it is given here, made absolute.
    Database(const std::filesystem::path& root, const std::filesystem::path& temp,
             const std::filesystem::path& systemRoot = "/");

    /// The directory of an installed package. Throws PackageNotExist; CorruptedInstalledPackage, after
    /// removing the package, when its "current" is missing or dangling.
    [[nodiscard]] std::filesystem::path packageDirectory(const std::string& packageId);

    /// Whether a version of the package is in service. Changes nothing, also where the package is damaged.
    /// Throws Filesystem when that cannot be read.
    [[nodiscard]] bool isInstalled(const std::string& packageId) const;

    /// The path of this version of the package, which need not exist.
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

    /// Installs a package that is not installed. The extracted directory is renamed into the database. A
    /// failure after that removes the package, with any version installed before: call prepareUpgrade() for
    /// an installed package. Throws Internal when there is no such directory, otherwise Filesystem, also when
    /// a link in the root has the package's name.
    /// @param entries  further entries of the record; reading it back requires "certificate.id" and
    ///                 "certificate.subgroup"
    void install(const PackageIdentity& package, const PackageData& entries,
                 const std::filesystem::path& extracted);

    /// Installs a validated package file or, when a version of the package is installed, prepares the
    /// upgrade: what has to be checked is checked before anything is unpacked. The record gets the
    /// developer's key identifier as "certificate.id", and "system" or "developer" as "certificate.subgroup".
    /// Throws as checkUpgrade(), Package::extract(), prepareUpgrade() and install().
    /// @param file        as Package::extract() takes it
    /// @param attributes, watch  as Package::extract() takes them
    /// @return whether an upgrade is prepared, which completeUpgrade() puts into service
    bool installFile(const Package& package, const std::filesystem::path& file,
                     const AttributeWriter& attributes = attachAttribute, const ExtractionWatch& watch = {});

    /// Puts a higher version beside the installed one, which stays in service. Replaces an upgrade prepared
    /// before. Throws as checkUpgrade() and install().
    void prepareUpgrade(const PackageIdentity& package, const PackageData& entries,
                        const std::filesystem::path& extracted);

    /// Checks that the package is higher than the prepared or else the installed version. Throws
    /// PackageNotExist, CorruptedInstalledPackage, DowngradeAttempt, UpgradeAlreadyPrepared.
    void checkUpgrade(const PackageIdentity& package);

    /// Puts the prepared upgrade into service and deletes all other versions, but for one whose mapping list
    /// could not be read: recovery finds it again. Needs the disk space of new mappings only. When the new
    /// version's mappings cannot be made the old version is put back into service and the upgrade stays
    /// prepared; if that fails too, the package is left damaged. Throws Internal when no upgrade is prepared,
    /// otherwise Filesystem or what packageDirectory() throws.
    void completeUpgrade(const PackageIdentity& package);

    /// Removes a package with its mappings and any prepared upgrade. When a mapping cannot be removed the
    /// package is removed nevertheless, but its directory stays, as that of a damaged one, until a later
    /// operation on it can remove the mapping. Throws Filesystem or what packageDirectory() throws.
    void remove(const std::string& packageId);

    /// Brings the database in order after a restart: empties the temporary directory, completes prepared
    /// upgrades, deletes versions that are not installed and packages that cannot be read. Leaves mappings
    /// alone: refreshMappings() of each package is the next step. Failures of single packages are logged, not
    /// thrown.
    /// @return the identifiers of the packages whose upgrade it completed, for the caller to announce
    std::vector<std::string> recoverDatabase();

    /// Brings the system directories in line with the installed version: missing mappings are made, those of
    /// the package's own that it no longer has are removed, what belongs to others is left.
    /// Throws what packageDirectory() throws, CorruptedInstalledPackage for a damaged record, and Filesystem
    /// for a link in place of the package's directory and when a mapping cannot be made; the others are made
    /// nevertheless.
    void refreshMappings(const std::string& packageId);

    /// Renames an extracted directory to the package's version directory. A version of that name that is
    /// neither installed nor prepared is replaced, and its mapping list kept; when that list cannot be read
    /// this time, the version stays for it under another name. Throws Internal when the extracted directory
    /// does not exist, Filesystem when it cannot be renamed, as onto the installed version.
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
    void putBack(const PackageDirectory& directory) noexcept;
    void removeTempDirectory() const;
    static void recoverPackage(const PackageDirectory& directory, std::vector<std::string>& completed);

    std::shared_ptr<const Mappings> mappings_;
};

} // namespace Core::ZUL
