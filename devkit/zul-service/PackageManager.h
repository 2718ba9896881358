#pragma once

#include "core/zul/Database.h"

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <stop_token>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Devkit {

/// The package manager's work on the package database, one operation at a time: used by one thread. Failures
/// are Common::Error with the code of the reason, or another std::exception for an unexpected one.
class PackageManager {
public:
    using PackageList = std::vector<Core::ZUL::PackageData>;

    struct Settings {
        Core::ZUL::Authorities authorities;
        Core::ZUL::AttributeWriter attributes; ///< attaches extended attributes to extracted files
        std::string architecture;              ///< of the packages, in addition to "noarch"
        std::chrono::seconds interval{3};      ///< between log lines about the progress of long work
    };

    struct Installed {
        std::string id;
        bool isPrepared; ///< whether it is an upgrade that waits for completeUpgrade()
    };

    /// Recovers the database after a restart.
    PackageManager(Core::ZUL::Database database, Settings settings);

    /// The packages whose upgrade the constructor completed.
    [[nodiscard]] const std::vector<std::string>& recovered() const { return recovered_; }

    /// Installs a package file or, when the package is installed, prepares the upgrade, which must be from
    /// the developer of the installed version.
    Installed install(const std::filesystem::path& packageFile);

    /// Stops the running validation or extraction and makes later ones fail. Any thread.
    void stop() { stop_.request_stop(); }

    /// Removes a package with a prepared upgrade.
    void remove(const std::string& id);

    [[nodiscard]] bool isUpgradePrepared(const std::string& id) const;

    /// A process that uses the installed version of a package; nothing if there is none.
    [[nodiscard]] std::optional<pid_t> findUser(const std::string& id);

    /// Completes the prepared upgrade. After a failure it may be called again while isUpgradePrepared().
    void completeUpgrade(const std::string& id);

    /// The record of a package's prepared upgrade or, without one, of the installed version.
    [[nodiscard]] Core::ZUL::PackageData describe(const std::string& id) { return database_.packageData(id); }

    /// Whether the record of an installed package exists; true when that cannot be read. Any thread.
    [[nodiscard]] bool isOnDisk(const std::string& id) const;

    /// Every installed package whose record can be sent on a bus.
    [[nodiscard]] PackageList list();

private:
    void requireInstalledDeveloper(const Core::ZUL::Package& package);

    Core::ZUL::Database database_;
    Settings settings_;
    std::stop_source stop_;
    std::vector<std::string> recovered_;
    std::map<std::string, Core::ZUL::PackageIdentity> prepared_; // by identifier
};

} // namespace Devkit
