#include "common/Files.h"
#include "common/Guard.h"
#include "common/LogLine.h"
#include "common/Names.h"
#include "common/TemporaryDirectory.h"
#include "common/rpm/Version.h"
#include "core/zul/Database.h"
#include "core/zul/Edge.h"
#include "core/zul/Events.h"
#include "core/zul/PackageDirectory.h"
#include "core/zul/Record.h"
#include "core/zul/mapping/MappingPlan.h"
#include "core/zul/mapping/Mappings.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace Core::ZUL {

namespace fs = std::filesystem;
namespace Keys = Common::Names::PackageKeys;
using Common::Error;
using Common::ErrorCode;
using Common::quoted;
using Common::Rpm::Version;

namespace {

/// Lets every user read a directory of the database.
void makePublic(const fs::path& directory) {
    if (chmod(directory.c_str(), 0755) != 0) {
        throw Common::filesystemError("couldn't set the mode of " + directory.native());
    }
}

/// Makes an extracted directory ready to be renamed into the database: complete, and on disk.
/// @param listHolders  whose mapping lists are added to its own
MappingPlan stage(const PackageIdentity& package, const PackageData& entries, const fs::path& extracted,
                  const std::vector<fs::path>& listHolders = {}) {
    const auto status = Common::statusOf(extracted, AT_SYMLINK_NOFOLLOW);
    if (!status || !S_ISDIR(status->st_mode)) {
        throw Error(ErrorCode::Internal, "extracted package directory doesn't exist: " + extracted.native());
    }
    writeRecord(package, entries, extracted);
    auto plan = Mappings::prepare(package, extracted);
    for (const auto& holder : listHolders) {
        Common::guarded("couldn't take over a mapping list", [&] { keepMappingListOf(holder, extracted); });
    }
    // Only the owner has access to an extracted directory; an installed one is readable by every user.
    makePublic(extracted);
    Common::flushFileSystem(extracted);
    return plan;
}

/// Adds to an extracted version's mapping list the list of an abandoned one, which may name mappings that
/// could not be removed.
/// @return whether the abandoned version may be deleted; if not, it was renamed to keep its list
bool takeOverListOf(const fs::path& version, const fs::path& extracted) {
    try {
        keepMappingListOf(version, extracted);
        return true;
    } catch (const Error& error) {
        Common::logWarning() << "couldn't take over a mapping list: " << error;
    }
    auto aside = (version.parent_path() / ".removed-XXXXXX").native();
    if (mkdtemp(aside.data()) == nullptr || rename(version.c_str(), aside.c_str()) != 0) {
        throw Common::filesystemError("couldn't rename " + version.native());
    }
    return false;
}

/// Adds the mapping lists of a package's other versions to the list of the prepared one.
/// @param message  beginning of the warnings
/// @return the versions whose list could not be read
std::set<fs::path> takeOverLists(const PackageDirectory& directory, const std::string& message) {
    std::set<fs::path> withoutList;
    for (const auto& holder : directory.listHolders()) {
        try {
            if (!keepMappingListOf(holder, directory.next())) {
                Common::logWarning() << message << "couldn't find package symlink list";
            }
        } catch (const Error& error) {
            // A retry may never succeed, as on a damaged disk: the upgrade continues, the version is kept.
            Common::logWarning() << message << error;
            withoutList.insert(holder == directory.current() ? directory.versionOf(holder) : holder);
        }
    }
    return withoutList;
}

} // namespace

fs::path Database::moveToVersionedDirectory(const PackageIdentity& package, const fs::path& extracted) const
    try {
    auto version = versionedDirectory(package);
    if (!Common::exists(extracted)) {
        throw Error(ErrorCode::Internal, "extracted package directory doesn't exist: " + extracted.native());
    }
    const PackageDirectory directory(version.parent_path());
    directory.requireNotSymlink();
    try {
        Common::makePublicDirectories(directory.path());
        makePublic(directory.path()); // a killed process may have left another mode
        const bool isReplacing = directory.isAbandoned(version) && takeOverListOf(version, extracted);
        const auto move = [&] {
            if (renameat2(AT_FDCWD, extracted.c_str(), AT_FDCWD, version.c_str(),
                          isReplacing ? RENAME_EXCHANGE : 0) != 0) {
                throw Common::filesystemError("couldn't rename " + extracted.native());
            }
        };
        move();
        if (isReplacing) {
            try {
                Common::flushDirectory(directory.path());
            } catch (...) {
                // A further attempt would install the replaced version.
                Common::guarded("couldn't put back the replaced version", move);
                throw;
            }
            Common::guarded("couldn't remove the replaced version", [&] { Common::removeTree(extracted); });
        }
    } catch (const Error& error) {
        Common::logError() << error;
        throw Error(ErrorCode::Filesystem, "couldn't create versioned directory: " + version.native());
    }
    return version;
} catch (...) {
    throwAsError();
}

void Database::install(const PackageIdentity& package, const PackageData& entries,
                       const fs::path& extracted) try {
    const auto message = "package " + package.id() + " installed: " + package.version();
    const auto plan = stage(package, entries, extracted);
    const auto version = moveToVersionedDirectory(package, extracted);
    const PackageDirectory directory(version.parent_path());
    try {
        if (symlink(version.c_str(), directory.current().c_str()) != 0) {
            throw Error(ErrorCode::Filesystem,
                        "couldn't create current directory: " + directory.current().native());
        }
        Common::flushDirectory(directory.path());
        Common::flushDirectory(rootDirectory());
        mappings_->createMappings(plan, directory.current());
    } catch (...) {
        cleanupCorruptedPackage(directory.path());
        throw;
    }
    recordEvent(packageInstalled, package.id(), package.version(), message);
} catch (...) {
    throwAsError();
}

void Database::checkUpgrade(const PackageIdentity& package) try {
    requireHigher(package, PackageDirectory(packageDirectory(package.id())));
} catch (...) {
    throwAsError();
}

void Database::requireHigher(const PackageIdentity& package, const PackageDirectory& directory) {
    static_cast<void>(requireVersion(package)); // before a damaged upgrade or package is removed
    bool isPrepared = directory.hasNextLink();
    auto existingName = PackageDirectory::versionNameOf(isPrepared ? directory.next() : directory.current());
    auto existing = Version::parse(existingName);
    if (!existing && isPrepared) {
        Common::logWarning() << "corrupted package upgrade found: " << quoted(directory.next());
        Common::logInfo() << "cleaning up corrupted package upgrade";
        const auto* message = "couldn't clean up correupted package upgrade";
        directory.discardPreparedUpgrade(message, message);
        isPrepared = false;
        existingName = PackageDirectory::versionNameOf(directory.current());
        existing = Version::parse(existingName);
    }
    if (!existing) {
        cleanupCorruptedPackage(directory.path());
        throw Error(ErrorCode::CorruptedInstalledPackage,
                    "couldn't parse actual package version: " + existingName);
    }
    ZUL::requireHigher(package, *existing, isPrepared);
}

void Database::prepareUpgrade(const PackageIdentity& package, const PackageData& entries,
                              const fs::path& extracted) try {
    checkUpgrade(package);
    placeNext(package, entries, extracted);
} catch (...) {
    throwAsError();
}

void Database::placeNext(const PackageIdentity& package, const PackageData& entries,
                         const fs::path& extracted) const {
    const auto directory = directoryOf(package.id());
    // The lists are added now: completion and recovery then need no disk space for them.
    static_cast<void>(stage(package, entries, extracted, directory.listHolders()));
    const auto version = moveToVersionedDirectory(package, extracted);
    const auto former = directory.versionOf(directory.next());
    try {
        Common::replaceLink(directory.next(), version);
    } catch (const Error& error) {
        Common::logError() << error;
        throw Error(ErrorCode::Filesystem, "couldn't create next directory: " + directory.next().native());
    }
    try {
        Common::flushDirectory(directory.path());
    } catch (...) {
        // Recovery would complete an upgrade that was reported as failed.
        Common::guarded("couldn't put back the prepared upgrade", [&] {
            former.empty() ? Common::removeTree(directory.next())
                           : Common::replaceLink(directory.next(), former);
            Common::flushDirectory(directory.path());
        });
        throw;
    }
}

bool Database::installFile(const Package& package, const fs::path& file, const AttributeWriter& attributes,
                           const ExtractionWatch& watch) try {
    const bool isUpgrade = [&] {
        try {
            checkUpgrade(package);
            return true;
        } catch (const Error& error) {
            // checkUpgrade() has removed a damaged package.
            if (error.code() != ErrorCode::PackageNotExist &&
                error.code() != ErrorCode::CorruptedInstalledPackage) {
                throw;
            }
            return false;
        }
    }();
    const Common::TemporaryDirectory extracted(tempDirectory(), "package");
    package.extract(file, extracted.path(), attributes, watch);
    const PackageData entries{
        {Keys::certificateId, package.developerKeyId()},
        {Keys::certificateSubgroup, package.isSystemDeveloper() ? "system" : "developer"}};
    isUpgrade ? placeNext(package, entries, extracted.path()) : install(package, entries, extracted.path());
    return isUpgrade;
} catch (...) {
    throwAsError();
}

/// Made before the first of them is renamed: after that nothing may fail for lack of memory.
struct Database::CompletionLinks {
    fs::path current;
    fs::path fallback;
    fs::path next;
};

void Database::completeUpgrade(const PackageIdentity& package) try {
    const PackageDirectory directory(packageDirectory(package.id()));
    directory.requireNotSymlink();
    if (!directory.pointsToExistingVersion(directory.next()) || !readPrepared(directory)) {
        try {
            Common::removeTree(directory.next());
        } catch (const Error& failure) {
            Common::logWarning() << "couldn't cleanup corrupted next directory" << failure;
        }
        throw Error(ErrorCode::Internal,
                    "attempt to complete non-existent update for " + package.id() + " package");
    }
    // The new version's list now includes the old version's mappings. Common ones are kept; the others are
    // removed after the new ones are created.
    const auto withoutList = takeOverLists(directory, "couldn't remove package symlinks: " + package.id());
    const auto plan = planMappings(package, directory.next());
    const auto newName = PackageDirectory::versionNameOf(directory.next());
    const auto message = "package " + package.id() + " upgraded to " + newName;
    const CompletionLinks links{directory.current(), directory.fallback(), directory.next()};
    if (const auto installed = directory.versionOf(links.current); !installed.empty()) {
        // A hard link takes no space; a new symbolic link with a long target does.
        Common::removeTree(links.fallback);
        if (link(links.current.c_str(), links.fallback.c_str()) != 0) {
            Common::replaceLink(links.fallback, installed);
        }
    }
    if (rename(links.next.c_str(), links.current.c_str()) != 0) {
        throw Error(ErrorCode::Filesystem,
                    "couldn't rename next directory to current for " + package.id() + " package");
    }
    try {
        Common::flushDirectory(directory.path());
        mappings_->createMappings(plan, links.current);
    } catch (...) {
        putBack(directory, links);
        throw;
    }
    recordEvent(packageUpgraded, package.id(), newName, message);
    try {
        directory.sweep("couldn't cleanup previous version of the package: ", [&](const fs::path& entry) {
            if (withoutList.contains(entry)) {
                keepMappingListOf(entry, directory.current());
            }
        });
    } catch (const std::exception& error) {
        Common::logWarning() << "couldn't cleanup previous versions of the package: " << error;
    }
} catch (...) {
    throwAsError();
}

/// After a failed completion: installs the old version and prepares the new one again. If that fails, the new
/// version stays installed, because a package without "current" would be lost.
void Database::putBack(const PackageDirectory& directory, const CompletionLinks& links) noexcept {
    const auto& current = links.current;
    const auto& fallback = links.fallback;
    const auto exchange = [&] {
        if (renameat2(AT_FDCWD, fallback.c_str(), AT_FDCWD, current.c_str(), RENAME_EXCHANGE) != 0) {
            throw Common::filesystemError("couldn't put back " + current.native());
        }
    };
    const auto putLinksBack = [&] {
        if (!Common::linkTarget(fallback)) {
            if (unlink(current.c_str()) != 0 && errno != ENOENT) {
                Common::logWarning() << "couldn't clean up current directory after interrupted upgrade: "
                                     << quoted(current) << std::generic_category().message(errno);
            }
            return;
        }
        // "current" exists at every moment.
        exchange();
        if (rename(fallback.c_str(), links.next.c_str()) != 0) {
            const auto failure = Common::filesystemError("couldn't put back " + links.next.native());
            exchange();
            throw failure;
        }
        Common::flushDirectory(directory.path());
        keepMappingListOf(links.next, current);
    };
    // The next refresh repairs a failure: the list includes the mappings that could not be removed.
    Common::guarded("couldn't put back the previous version", putLinksBack);
    Common::guarded("couldn't refresh the previous version", [&] {
        if (Common::exists(current)) {
            refreshMappings(directory.path().filename());
        }
    });
}

void Database::remove(const std::string& packageId) try {
    const PackageDirectory directory(packageDirectory(packageId));
    const auto id = directory.path().filename().native();
    const auto event = "package " + id + " removed";
    std::string version;
    Common::guarded("couldn't read the version of a package that is removed",
                    [&] { version = PackageDirectory::versionNameOf(directory.current()); });
    // A mapping that cannot be removed, or a list that cannot be read, must not prevent the removal.
    const auto message = "couldn't remove package symlinks: " + packageId;
    bool isUnmapped = false;
    try {
        isUnmapped = removeMappingsOf(directory, message);
    } catch (const Error& error) {
        Common::logWarning() << message << error;
    }
    try {
        removeAll(directory, isUnmapped);
    } catch (const Error& error) {
        Common::logError() << error;
        throw Error(ErrorCode::Filesystem, "couldn't remove package directory: " + directory.path().native());
    }
    recordEvent(packageRemoved, id, version, event);
} catch (...) {
    throwAsError();
}

} // namespace Core::ZUL
