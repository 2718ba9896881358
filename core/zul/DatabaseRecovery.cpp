#include "common/Files.h"
#include "common/LogLine.h"
#include "common/Names.h"
#include "core/zul/Database.h"
#include "core/zul/Edge.h"
#include "core/zul/Events.h"
#include "core/zul/PackageDirectory.h"
#include "core/zul/Record.h"
#include "core/zul/mapping/MappingPlan.h"
#include "core/zul/mapping/Mappings.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace Core::ZUL {

namespace fs = std::filesystem;
using Common::Error;
using Common::ErrorCode;
using Common::quoted;

namespace {

/// Whether the second path is the first or below it.
bool holds(const fs::path& outer, const fs::path& inner) {
    const auto above = fs::weakly_canonical(outer);
    const auto below = fs::weakly_canonical(inner);
    return std::mismatch(above.begin(), above.end(), below.begin(), below.end()).first == above.end();
}

std::optional<std::string> valueOf(const PackageData& data, const std::string& key) {
    const auto found = data.find(key);
    return found == data.end() ? std::nullopt : std::optional(found->second);
}

} // namespace

void Database::removeTempDirectory() const {
    try {
        if (!tempDirectory().empty() && holds(tempDirectory(), rootDirectory())) {
            throw Error(ErrorCode::Internal, "the database root directory lies in it");
        }
        Common::removeTree(tempDirectory());
    } catch (const std::exception& error) {
        Common::logWarning() << "couldn't cleanup database temporary directory" << error;
    }
}

void Database::recoverPackage(const PackageDirectory& directory, std::vector<std::string>& completed) {
    if (!directory.isReal()) {
        return;
    }
    // A prepared upgrade that cannot be read is discarded: it must not replace the installed version.
    const bool isUsable = directory.pointsToExistingVersion(directory.next()) && readPrepared(directory);
    if (!isUsable && directory.hasNextLink()) {
        directory.discardPreparedUpgrade();
    }
    if (isUsable) {
        const auto newName = PackageDirectory::versionNameOf(directory.next());
        if (rename(directory.next().c_str(), directory.current().c_str()) == 0) {
            const auto name = directory.path().filename().native();
            completed.push_back(name);
            Common::logInfo() << "package " << name << " successfully upgraded";
            recordEvent(packageUpgraded, name, newName, "package " + name + " upgraded to " + newName);
            Common::flushDirectory(directory.path());
        } else {
            Common::logWarning() << "couldn't rename next symlink to the current: "
                                 << std::generic_category().message(errno);
            return;
        }
    }
    // If "current" points to no version, the lists of all versions are still needed.
    if (directory.pointsToExistingVersion(directory.current())) {
        // The mappings of another version are known only from its list.
        directory.sweep("couldn't remove outdated package versioned directory: ",
                        [&](const fs::path& entry) { keepMappingListOf(entry, directory.current()); });
    }
}

std::vector<std::string> Database::recoverDatabase() try {
    std::vector<std::string> completed;
    removeTempDirectory();
    if (!Common::exists(rootDirectory())) {
        Common::logWarning() << "database root directory doesn't exist";
        return completed;
    }
    for (const auto& entry : Common::entriesOf(rootDirectory())) {
        try {
            recoverPackage(PackageDirectory(entry), completed);
        } catch (const std::exception& error) {
            Common::logWarning() << "couldn't recover package directory " << quoted(entry) << ": " << error;
        }
    }
    for (const auto& entry : Common::entriesOf(rootDirectory())) {
        try {
            static_cast<void>(readInstalled(PackageDirectory(entry)));
        } catch (const std::exception& error) {
            Common::logWarning() << error;
        }
    }
    return completed;
} catch (...) {
    throwAsError();
}

void Database::refreshMappings(const std::string& packageId) try {
    const PackageDirectory directory(packageDirectory(packageId));
    directory.requireNotSymlink();
    if (!directory.pointsToExistingVersion(directory.current())) {
        throw Error(ErrorCode::CorruptedInstalledPackage,
                    "couldn't find current directory of " + packageId + " package");
    }
    const auto data = readRecord(directory.current() / recordName);
    const PackageIdentity package(packageId, data.at(Common::Names::PackageKeys::version),
                                  valueOf(data, Common::Names::PackageKeys::orgName),
                                  valueOf(data, Common::Names::PackageKeys::appName));
    mappings_->refreshMappings(planMappings(package, directory.current()), directory.current());
} catch (...) {
    throwAsError();
}

} // namespace Core::ZUL
