#include "devkit/zul-service/PackageManager.h"

#include "common/BusText.h"
#include "common/Error.h"
#include "common/LogLine.h"
#include "common/Names.h"
#include "core/zul/Record.h"
#include "devkit/zul-service/ProcessScan.h"

#include <algorithm>
#include <chrono>
#include <climits>

namespace Devkit {

namespace Keys = Common::Names::PackageKeys;
using Common::ErrorCode;
using Core::ZUL::Package;
using Core::ZUL::PackageData;

namespace {

bool canTravel(const PackageData& package) {
    return std::all_of(package.begin(), package.end(), [](const auto& entry) {
        return Common::isBusText(entry.first) && Common::isBusText(entry.second);
    });
}

auto progressLogger(const std::string& done, const std::string& subject, std::chrono::seconds interval) {
    using Clock = std::chrono::steady_clock;
    return [=, last = Clock::now()](std::uint64_t bytes, std::uint64_t total) mutable {
        if (total > 0 && Clock::now() - last >= interval) {
            last = Clock::now();
            Common::logInfo() << done << " " << std::to_string(std::min(bytes, total) * 100 / total)
                              << " % of " << subject;
        }
    };
}

} // namespace

PackageManager::PackageManager(Core::ZUL::Database database, Settings settings)
    : database_(std::move(database))
    , settings_(std::move(settings))
    , recovered_(database_.recoverDatabase()) {
    for (const auto& [directory, package] : database_.packages()) {
        try {
            database_.refreshMappings(package.at(Keys::id));
        } catch (const Common::Error& error) {
            Common::logFailure(Common::LogLevel::Warning,
                               "couldn't refresh the mappings of " + Common::quoted(directory), error);
        }
    }
}

PackageManager::Installed PackageManager::install(const std::filesystem::path& packageFile) {
    if (packageFile.native().size() >= PATH_MAX || !packageFile.is_absolute()) {
        throw Common::Error(ErrorCode::FileNotFound, "the package file's path is not absolute, or too long");
    }
    const auto package = Package::fromFile(
        packageFile, settings_.authorities,
        {progressLogger("validated", Common::quoted(packageFile), settings_.interval), stop_.get_token()});
    package.requireArchitecture(settings_.architecture);
    requireInstalledDeveloper(package);
    const bool upgrade = database_.installFile(
        package, packageFile, settings_.attributes,
        {progressLogger("unpacked", package.id(), settings_.interval), stop_.get_token()});
    if (upgrade) {
        // Only the identity: an open file would block its writers until the upgrade is complete.
        prepared_.insert_or_assign(package.id(), static_cast<const Core::ZUL::PackageIdentity&>(package));
    }
    Common::logInfo() << (upgrade ? "prepared the upgrade of " : "installed ") << package.id()
                      << " to version " << package.version();
    return {package.id(), upgrade};
}

// The authority certifies many developers; none of them may replace another developer's application.
void PackageManager::requireInstalledDeveloper(const Package& package) try {
    if (database_.isInstalled(package.id()) &&
        database_.packageData(package.id()).at(Keys::certificateId) != package.developerKeyId()) {
        throw Common::Error(ErrorCode::BadPackageSignature,
                            "the installed version is from another developer: " + package.id());
    }
} catch (const Common::Error& error) {
    if (error.code() != ErrorCode::CorruptedInstalledPackage) {
        throw;
    }
    // Reading a damaged package removes it; this is then a first installation.
}

void PackageManager::remove(const std::string& id) {
    database_.remove(id);
    prepared_.erase(id);
    Common::logInfo() << "removed " << id;
}

bool PackageManager::isUpgradePrepared(const std::string& id) const {
    return prepared_.contains(id) && database_.hasPreparedNextVersion(id);
}

std::optional<pid_t> PackageManager::findUser(const std::string& id) {
    return findProcessUsing(std::filesystem::canonical(database_.packageDirectory(id) / "current"));
}

void PackageManager::completeUpgrade(const std::string& id) {
    const auto& package = prepared_.at(id);
    database_.completeUpgrade(package);
    Common::logInfo() << "upgraded " << id << " to version " << package.version();
    prepared_.erase(id);
}

bool PackageManager::isOnDisk(const std::string& id) const {
    std::error_code error;
    const auto record = database_.rootDirectory() / id / "current" / Core::ZUL::recordName;
    return std::filesystem::status(record, error).type() != std::filesystem::file_type::not_found;
}

PackageManager::PackageList PackageManager::list() {
    PackageList result;
    for (const auto& [directory, package] : database_.packages()) {
        if (canTravel(package)) {
            result.push_back(package);
        } else {
            Common::logWarning() << "the record of " << Common::quoted(directory) << " is not valid UTF-8";
        }
    }
    return result;
}

} // namespace Devkit
