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
        std::string architecture;              ///< of the packages, beside "noarch"
        std::chrono::seconds interval{3};      ///< of the log's lines about the progress of a long work
    };

    struct Installed {
        std::string id;
        bool isPrepared; ///< whether it is an upgrade that waits for completeUpgrade()
    };

    /// Brings the database in order after a restart.
    PackageManager(Core::ZUL::Database database, Settings settings);

    /// The packages whose upgrade the constructor completed.
    [[nodiscard]] const std::vector<std::string>& recovered() const { return recovered_; }

    /// Installs a package file or, when the package is installed, prepares the upgrade. It has to be from the
    /// developer of the installed version.
    Installed install(const std::filesystem::path& packageFile);

    /// Ends a validation or extraction that is going on, and makes later ones fail. Any thread.
    void stop() { stop_.request_stop(); }

    /// Removes a package, with an upgrade that is prepared.
    void remove(const std::string& id);

    [[nodiscard]] bool isUpgradePrepared(const std::string& id) const;

    /// A process that uses the installed version of a package; nothing without one.
    [[nodiscard]] std::optional<pid_t> findUser(const std::string& id);

    /// Puts the prepared upgrade into service. After a failure it may be called again while
    /// isUpgradePrepared().
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
