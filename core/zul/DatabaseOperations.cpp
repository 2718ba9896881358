#include "common/Files.h"
#include "common/LogLine.h"
#include "common/rpm/Version.h"
#include "core/zul/Database.h"
#include "core/zul/Events.h"
#include "core/zul/PackageNames.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace Core::ZUL {

namespace fs = std::filesystem;
using Common::Error;
using Common::ErrorCode;
using Common::quoted;
using Common::Rpm::Version;

/// Makes an extracted directory ready to be renamed into the database: complete, and on disk.
void Database::stage(const Package& package, const PackageData& entries, const fs::path& extracted) const {
    requireOrdinaryNames(package);
    if (Common::linkTarget(extracted)) {
        throw Error(ErrorCode::Internal, "extracted package directory doesn't exist: " + extracted.native());
    }
    writeRecord(package, entries, extracted);
    Mappings::writeList(package, extracted);
    Common::flushFileSystem(extracted);
}

fs::path Database::moveToVersionedDirectory(const Package& package, const fs::path& extracted) const {
    auto version = versionedDirectory(package);
    if (!Common::leadsSomewhere(extracted)) {
        throw Error(ErrorCode::Internal, "extracted package directory doesn't exist: " + extracted.native());
    }
    PackageDirectory(version.parent_path()).requireReal();
    std::error_code error;
    fs::create_directories(version.parent_path(), error);
    if (error || rename(extracted.c_str(), version.c_str()) != 0) {
        throw Error(ErrorCode::Filesystem, "couldn't create versioned directory: " + version.native());
    }
    return version;
}

void Database::install(const Package& package, const PackageData& entries, const fs::path& extracted) {
    stage(package, entries, extracted);
    const auto version = moveToVersionedDirectory(package, extracted);
    const PackageDirectory directory(version.parent_path());
    try {
        if (symlink(version.c_str(), directory.current().c_str()) != 0) {
            throw Error(ErrorCode::Filesystem,
                        "couldn't create current directory: " + directory.current().native());
        }
        Common::flushDirectory(directory.path());
        Common::flushDirectory(rootDirectory_);
        mappings_.createMappings(package, directory.current());
        mappings_.flush();
    } catch (...) {
        cleanupCorruptedPackage(directory.path());
        throw;
    }
}

void Database::checkUpgrade(const Package& package) {
    requireOrdinaryNames(package);
    requireHigher(package, PackageDirectory(packageDirectory(package.id())));
}

void Database::requireHigher(const Package& package, const PackageDirectory& directory) {
    bool isPrepared = directory.hasNextLink();
    auto existingName = directory.versionNameBehind(isPrepared ? directory.next() : directory.current());
    const auto offered = Version::parse(package.version());
    if (!offered) {
        throw Error(ErrorCode::BadPackage, "couldn't parse package version: " + package.version());
    }
    auto existing = Version::parse(existingName);
    if (!existing && isPrepared) {
        Common::logWarning() << "corrupted package upgrade found: " << quoted(directory.next());
        Common::logInfo() << "cleaning up corrupted package upgrade";
        const auto* words = "couldn't clean up correupted package upgrade";
        directory.giveUpNext(words, words);
        isPrepared = false;
        existingName = directory.versionNameBehind(directory.current());
        existing = Version::parse(existingName);
    }
    if (!existing) {
        cleanupCorruptedPackage(directory.path());
        throw Error(ErrorCode::CorruptedInstalledPackage,
                    "couldn't parse actual package version: " + existingName);
    }
    const int order = offered->compare(*existing);
    if (order > 0) {
        return;
    }
    if (order == 0 && isPrepared) {
        throw Error(ErrorCode::UpgradeAlreadyPrepared,
                    "package upgrade to version " + package.version() + " already prepared");
    }
    throw Error(ErrorCode::DowngradeAttempt, "attempt to downgrade package from " + existing->text() +
                                                 " to " + package.version() + " version");
}

void Database::prepareUpgrade(const Package& package, const PackageData& entries, const fs::path& extracted) {
    checkUpgrade(package);
    stage(package, entries, extracted);
    const auto version = moveToVersionedDirectory(package, extracted);
    const PackageDirectory directory(version.parent_path());
    try {
        Common::replaceLink(directory.next(), version);
    } catch (const Error& error) {
        Common::logError() << error;
        throw Error(ErrorCode::Filesystem, "couldn't create next directory: " + directory.next().native());
    }
    Common::flushDirectory(directory.path());
}

void Database::completeUpgrade(const Package& package) {
    requireOrdinaryNames(package);
    const PackageDirectory directory(packageDirectory(package.id()));
    directory.requireReal();
    if (!directory.isSound(directory.next())) {
        try {
            Common::removeTree(directory.next());
        } catch (const Error& failure) {
            Common::logWarning() << "couldn't cleanup corrupted next directory" << failure;
        }
        throw Error(ErrorCode::Internal,
                    "attempt to complete non-existent update for " + package.id() + " package");
    }
    const auto left = removeMappingsOf(directory, "couldn't remove package symlinks: " + package.id());
    if (rename(directory.next().c_str(), directory.current().c_str()) != 0) {
        throw Error(ErrorCode::Filesystem,
                    "couldn't rename next directory to current for " + package.id() + " package");
    }
    Common::flushDirectory(directory.path());
    try {
        // The only list that names what could not be removed goes with its version.
        mappings_.createMappings(package, directory.current(), left);
        mappings_.flush();
    } catch (...) {
        if (unlink(directory.current().c_str()) != 0 && errno != ENOENT) {
            Common::logWarning() << "couldn't clean up current directory after interrupted upgrade: "
                                 << quoted(directory.current()) << std::generic_category().message(errno);
        }
        throw;
    }
    recordEvent(Event::PackageUpgraded, ErrorCode::None,
                "package " + package.id() + " upgraded to " +
                    directory.versionNameBehind(directory.current()));
    try {
        directory.sweep("couldn't cleanup previous version of the package: ");
    } catch (const std::exception& error) {
        Common::logWarning() << "couldn't cleanup previous versions of the package: " << error;
    }
}

void Database::remove(const std::string& packageId) {
    const PackageDirectory directory(packageDirectory(packageId));
    // What could not be removed is in the log and stays: a package must not be unremovable because of it.
    static_cast<void>(removeMappingsOf(directory, "couldn't remove package symlinks: " + packageId));
    try {
        // Mappings that came back with the power would have no list any more.
        mappings_.flush();
        directory.remove();
        Common::flushDirectory(rootDirectory_);
    } catch (const Error& error) {
        Common::logError() << error;
        throw Error(ErrorCode::Filesystem, "couldn't remove package directory: " + directory.path().native());
    }
}

} // namespace Core::ZUL
