#include "core/zul/Database.h"

#include "common/Files.h"
#include "common/Guard.h"
#include "common/LogLine.h"
#include "core/zul/Edge.h"
#include "core/zul/Events.h"
#include "core/zul/PackageDirectory.h"
#include "core/zul/Record.h"
#include "core/zul/mapping/Mappings.h"

namespace Core::ZUL {

namespace fs = std::filesystem;
using Common::Error;
using Common::ErrorCode;
using Common::quoted;

namespace {

void removeUnexpected(const fs::path& entry) {
    Common::logWarning() << "unexpected entry found in database root directory: " << quoted(entry);
    Common::logInfo() << "cleaning up unexpected entry";
    std::error_code error;
    if (!fs::remove(entry, error) && error) {
        Common::logWarning() << "couldn't clean up unexpected entry" << error.message();
    }
}

} // namespace

Database::Database(const fs::path& configuration)
    : DatabaseLocation(configuration)
    , mappings_(std::make_shared<const Mappings>("/")) {}

Database::Database(const fs::path& root, const fs::path& temp, const fs::path& systemRoot)
    : DatabaseLocation(root, temp)
    , mappings_(std::make_shared<const Mappings>(wholePath(systemRoot))) {}

PackageDirectory Database::directoryOf(const std::string& packageId) const {
    return PackageDirectory(rootDirectory() / directoryName(packageId));
}

bool Database::isInstalled(const std::string& packageId) const try {
    const auto directory = directoryOf(packageId);
    return directory.pointsToExistingVersion(directory.current());
} catch (...) {
    throwAsError();
}

fs::path Database::packageDirectory(const std::string& packageId) try {
    const auto directory = directoryOf(packageId);
    if (!Common::exists(directory.path())) {
        throw Error(ErrorCode::PackageNotExist, "couldn't find package directory: " + packageId);
    }
    if (!Common::exists(directory.current())) {
        cleanupCorruptedPackage(directory.path());
        throw Error(ErrorCode::CorruptedInstalledPackage,
                    "couldn't find current directory of " + packageId + " package");
    }
    return directory.path();
} catch (...) {
    throwAsError();
}

fs::path Database::versionedDirectory(const PackageIdentity& package) const try {
    return directoryOf(package.id()).path() / package.version();
} catch (...) {
    throwAsError();
}

std::optional<PackageData> Database::readPrepared(const PackageDirectory& directory) {
    if (!Common::exists(directory.next())) {
        return std::nullopt;
    }
    std::string version;
    std::string message;
    try {
        return readRecord(directory.next() / recordName);
    } catch (const Error& error) {
        if (error.code() != ErrorCode::CorruptedInstalledPackage) {
            throw;
        }
        Common::logWarning() << "couldn't read package data from the next directory: " << error;
        Common::logInfo() << "trying to read data from the current directory";
        Common::logInfo() << "cleaning up corrupted next directory: " << quoted(directory.next());
        version = PackageDirectory::versionNameOf(directory.next());
        message = "damaged upgrade given up: " + directory.path().native() + ": " + error.what();
        logEvent(corruptedUpgradeRemoved, message, error.code());
    }
    if (directory.hasNextLink()) {
        directory.discardPreparedUpgrade();
    }
    if (!Common::exists(directory.next())) {
        recordInJournal(corruptedUpgradeRemoved, directory.path().filename(), version, message);
    }
    return std::nullopt;
}

PackageData Database::readInstalled(const PackageDirectory& directory) {
    try {
        return readRecord(directory.current() / recordName);
    } catch (const Error& error) {
        Common::logError() << "couldn't read package data from the current directory: " << error;
        // A read error is not damage: it must not destroy the package.
        if (error.code() == ErrorCode::CorruptedInstalledPackage) {
            cleanupCorruptedPackage(directory.path());
        }
        throw;
    }
}

PackageData Database::readPackageData(const fs::path& packageDirectory) try {
    const PackageDirectory directory(packageDirectory);
    auto prepared = readPrepared(directory);
    return prepared ? *std::move(prepared) : readInstalled(directory);
} catch (...) {
    throwAsError();
}

PackageData Database::packageData(const std::string& packageId) {
    return readPackageData(packageDirectory(packageId));
}

std::vector<fs::path> Database::packageDirectories() try {
    std::vector<fs::path> directories;
    if (!Common::exists(rootDirectory())) {
        Common::logWarning() << "database root directory doesn't exist";
        return directories;
    }
    for (auto& entry : Common::entriesOf(rootDirectory())) {
        try {
            const auto status = Common::statusOf(entry);
            if (status && S_ISDIR(status->st_mode)) {
                directories.push_back(std::move(entry));
            } else {
                removeUnexpected(entry);
            }
        } catch (const Error& error) {
            Common::logWarning() << error;
        }
    }
    return directories;
} catch (...) {
    throwAsError();
}

std::vector<std::pair<fs::path, PackageData>> Database::packages() try {
    std::vector<std::pair<fs::path, PackageData>> result;
    for (const auto& directory : packageDirectories()) {
        try {
            result.emplace_back(directory, readPackageData(directory));
        } catch (const Error& error) {
            if (error.code() == ErrorCode::CorruptedInstalledPackage) {
                Common::logWarning() << "corrupted package directory found: " << quoted(directory);
            } else {
                Common::logFailure(Common::LogLevel::Warning,
                                   "couldn't read package directory: " + quoted(directory), error);
            }
        }
    }
    return result;
} catch (...) {
    throwAsError();
}

/// @param message  begins the warning about a version without a list
/// @return whether all mappings are removed
bool Database::removeMappingsOf(const PackageDirectory& directory, const std::string& message) const {
    bool areRemoved = true;
    for (const auto& holder : directory.listHolders()) {
        // Most mappings in the lists of other versions are already removed or were never created.
        const auto isRemoved = mappings_->removeMappings(holder, holder != directory.current());
        if (!isRemoved) {
            Common::logWarning() << message << "couldn't find package symlink list";
        }
        areRemoved = areRemoved && isRemoved.value_or(true);
    }
    return areRemoved;
}

/// Removes a package, or only its links if mappings are left; later operations find these in its lists.
void Database::removeAll(const PackageDirectory& directory, bool isUnmapped) const {
    if (isUnmapped || !directory.isReal()) {
        directory.remove();
    } else {
        directory.removeLinks();
        Common::logWarning() << "package directory stays for its mappings: " << quoted(directory.path());
    }
    Common::flushDirectory(rootDirectory());
}

void Database::cleanupCorruptedPackage(const fs::path& packageDirectory) noexcept {
    Common::guarded("couldn't clean up corrupted package", [&] {
        const PackageDirectory directory(packageDirectory);
        const std::string message = "couldn't clean up corrupted package mapping: ";
        bool isUnmapped = false;
        try {
            if (Common::exists(directory.current())) {
                Common::logInfo() << "cleaning up corrupted package mapping: " << quoted(directory.current());
            }
            isUnmapped = removeMappingsOf(directory, message);
        } catch (const Error& error) {
            Common::logWarning() << message << error;
        }
        Common::logInfo() << "cleaning up corrupted package directory: " << quoted(directory.path());
        std::string version;
        Common::guarded("couldn't read the version of a corrupted package",
                        [&] { version = PackageDirectory::versionNameOf(directory.current()); });
        const auto removal = "damaged package removed: " + directory.path().native();
        logEvent(corruptedPackageRemoved, removal, ErrorCode::CorruptedInstalledPackage);
        try {
            removeAll(directory, isUnmapped);
            if (!Common::exists(directory.path())) { // it stays if a mapping could not be removed
                recordInJournal(corruptedPackageRemoved, packageDirectory.filename(), version, removal);
            }
        } catch (const Error& error) {
            Common::logWarning() << "couldn't clean up corrupted package directory: " << error;
        }
    });
}

} // namespace Core::ZUL
