#include "devkit/zul-service/PackageManager.h"

#include "common/BusText.h"
#include "common/Error.h"
#include "common/Files.h"
#include "common/Guard.h"
#include "common/LogLine.h"
#include "common/Names.h"
#include "devkit/zul-service/ProcessScan.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace Devkit {

namespace Keys = Common::Names::PackageKeys;
using Common::ErrorCode;
using Core::ZUL::Package;
using Core::ZUL::PackageData;

namespace {

/// A fresh directory for one extraction. Removed, with what is left in it, when the object ends.
class ExtractionDirectory {
public:
    explicit ExtractionDirectory(const std::filesystem::path& parent) {
        std::filesystem::create_directories(parent);
        auto name = (parent / "package-XXXXXX").native();
        if (mkdtemp(name.data()) == nullptr) {
            throw Common::filesystemError("couldn't create " + Common::quoted(name));
        }
        path_ = name;
    }
    ~ExtractionDirectory() {
        Common::guarded("couldn't remove an extraction directory", [this] { Common::removeTree(path_); });
    }
    ExtractionDirectory(const ExtractionDirectory&) = delete;
    ExtractionDirectory& operator=(const ExtractionDirectory&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

PackageData recordEntries(const Package& package) {
    return {{Keys::certificateId, package.developerCms().certificate().keyId()},
            {Keys::certificateSubgroup, package.isSystemDeveloper() ? "system" : "developer"}};
}

bool canTravel(const PackageData& package) {
    return std::all_of(package.begin(), package.end(), [](const auto& entry) {
        return Common::isBusText(entry.first) && Common::isBusText(entry.second);
    });
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
    if (!packageFile.is_absolute()) {
        throw Common::Error(ErrorCode::FileNotFound,
                            "the package file's path is not absolute: " + Common::quoted(packageFile));
    }
    auto package = Package::fromFile(packageFile, settings_.authorities);
    requireArchitecture(package);
    const bool upgrade = isInstalled(package.id());
    if (upgrade) {
        // Also checked by the preparation, but nothing has to be unpacked for a refusal.
        database_.checkUpgrade(package);
    }
    const ExtractionDirectory extracted(database_.tempDirectory());
    package.extract(packageFile, extracted.path(), settings_.attributes);
    if (upgrade) {
        database_.prepareUpgrade(package, recordEntries(package), extracted.path());
        // Without its file, whose writers would have to wait until the upgrade is complete.
        prepared_.insert_or_assign(package.id(), static_cast<const Core::ZUL::PackageIdentity&>(package));
    } else {
        database_.install(package, recordEntries(package), extracted.path());
    }
    Common::logInfo() << (upgrade ? "prepared the upgrade of " : "installed ") << package.id()
                      << " to version " << package.version();
    return {package.id(), upgrade};
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

void PackageManager::requireArchitecture(const Package& package) const {
    if (package.architecture() != "noarch" && package.architecture() != settings_.architecture) {
        throw Common::Error(ErrorCode::BadPackageArchitecture, "package " + package.id() + " is built for " +
                                                                   package.architecture() + ", not for " +
                                                                   settings_.architecture);
    }
}

// A package that turns out to be damaged is gone with the look at it, and can be installed afresh.
bool PackageManager::isInstalled(const std::string& id) {
    try {
        static_cast<void>(database_.packageDirectory(id));
        return true;
    } catch (const Common::Error& error) {
        if (error.code() != ErrorCode::PackageNotExist &&
            error.code() != ErrorCode::CorruptedInstalledPackage) {
            throw;
        }
        return false;
    }
}

} // namespace Devkit
