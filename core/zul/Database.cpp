#include "core/zul/Database.h"

#include "common/Files.h"
#include "common/LogLine.h"
#include "core/zul/Events.h"
#include "core/zul/PackageNames.h"

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>

namespace Core::ZUL {

namespace fs = std::filesystem;
using Common::Error;
using Common::ErrorCode;
using Common::quoted;

namespace {

boost::property_tree::ptree readConfiguration(const fs::path& file) {
    boost::property_tree::ptree tree;
    try {
        boost::property_tree::read_ini(file.native(), tree);
        return tree;
    } catch (const std::exception&) {
        Common::logError() << "couldn't parse config file: " << file.native();
        return {};
    }
}

// Links in the database name whole paths, which a relative one would not be from where they lie.
fs::path wholePath(const fs::path& path) {
    std::error_code error;
    auto result = fs::absolute(path, error);
    return error ? path : result;
}

void removeUnexpected(const fs::path& entry) {
    Common::logWarning() << "unexpected entry found in database root directory: " << quoted(entry);
    Common::logInfo() << "cleaning up unexpected entry";
    std::error_code error;
    if (!fs::remove(entry, error) && error) {
        Common::logWarning() << "couldn't clean up unexpected entry" << error.message();
    }
}

} // namespace

Database::Database(const fs::path& configuration) {
    const auto tree = readConfiguration(configuration);
    rootDirectory_ = wholePath(tree.get<std::string>("database.root_directory", "/opt/app"));
    tempDirectory_ = wholePath(tree.get<std::string>("database.temp_directory", "/opt/zul/tmp"));
}

Database::Database(const fs::path& root, const fs::path& temp, const fs::path& systemRoot)
    : rootDirectory_(wholePath(root))
    , tempDirectory_(wholePath(temp))
    , mappings_(wholePath(systemRoot)) {}

bool Database::hasPreparedNextVersion(const std::string& packageId) const {
    const auto package = rootDirectory_ / fs::path(packageId).relative_path();
    return fs::is_directory(package / "next");
}

PackageDirectory Database::directoryOf(const std::string& packageId) const {
    return PackageDirectory(rootDirectory_ / directoryName(packageId));
}

fs::path Database::packageDirectory(const std::string& packageId) {
    const auto directory = directoryOf(packageId);
    if (!Common::leadsSomewhere(directory.path())) {
        throw Error(ErrorCode::PackageNotExist, "couldn't find package directory: " + packageId);
    }
    if (!Common::leadsSomewhere(directory.current())) {
        cleanupCorruptedPackage(directory.path());
        throw Error(ErrorCode::CorruptedInstalledPackage,
                    "couldn't find current directory of " + packageId + " package");
    }
    return directory.path();
}

fs::path Database::versionedDirectory(const Package& package) const {
    requireOrdinaryNames(package);
    return directoryOf(package.id()).path() / package.version();
}

std::optional<PackageData> Database::readPrepared(const PackageDirectory& directory) {
    if (!Common::leadsSomewhere(directory.next())) {
        return std::nullopt;
    }
    try {
        return readRecord(directory.next() / recordName);
    } catch (const Error& error) {
        if (error.code() != ErrorCode::CorruptedInstalledPackage) {
            throw;
        }
        Common::logWarning() << "couldn't read package data from the next directory: " << error;
        Common::logInfo() << "trying to read data from the current directory";
        Common::logInfo() << "cleaning up corrupted next directory: " << quoted(directory.next());
        recordEvent(Event::CorruptedUpgradeRemoved, error.code(),
                    "damaged upgrade given up: " + directory.path().native() + ": " + error.what());
    }
    if (directory.hasNextLink()) {
        directory.giveUpNext("couldn't cleanup corrupted package version: ",
                             "couldn't cleanup corrupted next symlink: ");
    }
    return std::nullopt;
}

PackageData Database::readInstalled(const PackageDirectory& directory) {
    try {
        return readRecord(directory.current() / recordName);
    } catch (const Error& error) {
        Common::logError() << "couldn't read package data from the current directory: " << error;
        // A file that could not be read this time is no reason to destroy the package.
        if (error.code() == ErrorCode::CorruptedInstalledPackage) {
            cleanupCorruptedPackage(directory.path());
        }
        throw;
    }
}

PackageData Database::readPackageData(const fs::path& packageDirectory) {
    const PackageDirectory directory(packageDirectory);
    auto prepared = readPrepared(directory);
    return prepared ? *std::move(prepared) : readInstalled(directory);
}

PackageData Database::packageData(const std::string& packageId) {
    return readPackageData(packageDirectory(packageId));
}

std::vector<fs::path> Database::packageDirectories() {
    std::vector<fs::path> directories;
    if (!Common::leadsSomewhere(rootDirectory_)) {
        Common::logWarning() << "database root directory doesn't exist";
        return directories;
    }
    try {
        for (const auto& entry : fs::directory_iterator(rootDirectory_)) {
            std::error_code error;
            if (entry.is_directory(error)) {
                directories.push_back(entry.path());
            } else {
                removeUnexpected(entry.path());
            }
        }
    } catch (const fs::filesystem_error& error) {
        throw Error(ErrorCode::Filesystem,
                    std::string("couldn't list database root directory: ") + error.what());
    }
    return directories;
}

std::vector<std::pair<fs::path, PackageData>> Database::packages() {
    std::vector<std::pair<fs::path, PackageData>> result;
    for (const auto& directory : packageDirectories()) {
        try {
            result.emplace_back(directory, readPackageData(directory));
        } catch (const Error&) {
            Common::logWarning() << "corrupted package directory found: " << quoted(directory);
        }
    }
    return result;
}

MappingList Database::removeMappingsOf(const PackageDirectory& directory, const std::string& words) const {
    std::vector<fs::path> versions;
    if (!directory.isSound(directory.current())) {
        // Whichever version was installed, its list is still in its directory.
        versions = directory.versions();
    }
    if (Common::leadsSomewhere(directory.current())) {
        versions.push_back(directory.current());
    }
    MappingList left;
    for (const auto& version : versions) {
        try {
            left = mergedMappingList(std::move(left), mappings_.removeMappings(version));
        } catch (const Error& error) {
            Common::logWarning() << words << error;
        }
    }
    return left;
}

void Database::cleanupCorruptedPackage(const fs::path& packageDirectory) noexcept {
    const PackageDirectory directory(packageDirectory);
    const std::string words = "couldn't clean up corrupted package mapping: ";
    try {
        if (Common::leadsSomewhere(directory.current())) {
            Common::logInfo() << "cleaning up corrupted package mapping: " << quoted(directory.current());
        }
        static_cast<void>(removeMappingsOf(directory, words));
        mappings_.flush();
    } catch (const std::exception& error) {
        Common::logWarning() << words << error;
    }
    Common::logInfo() << "cleaning up corrupted package directory: " << quoted(directory.path());
    recordEvent(Event::CorruptedPackageRemoved, ErrorCode::CorruptedInstalledPackage,
                "damaged package removed: " + directory.path().native());
    try {
        directory.remove();
    } catch (const std::exception& error) {
        Common::logWarning() << "couldn't clean up corrupted package directory: " << error;
    }
}

} // namespace Core::ZUL
