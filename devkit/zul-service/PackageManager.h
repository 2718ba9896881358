#pragma once

#include "core/zul/Database.h"
#include "core/zul/package/Package.h"

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Devkit {

/// The package manager's work on the package database, one operation at a time: used by one thread. Failures
/// are Common::Error with the code that tells what is wrong, or std::exception for what nobody foresaw.
class PackageManager {
public:
    using PackageList = std::vector<Core::ZUL::PackageData>;

    struct Settings {
        Core::ZUL::Authorities authorities;
        Core::ZUL::AttributeWriter attributes; ///< how extraction attaches extended attributes
        std::string architecture;              ///< what packages have to be built for, beside "noarch"
    };

    /// Brings the database in order after a restart.
    PackageManager(Core::ZUL::Database database, Settings settings);

    /// The packages whose upgrade the constructor completed.
    [[nodiscard]] const std::vector<std::string>& recovered() const { return recovered_; }

    /// Installs a package file or, when the package is installed, prepares the upgrade: then it waits for
    /// completeUpgrade().
    /// @return the identifier of the package
    std::string install(const std::filesystem::path& packageFile);

    /// Removes a package, with an upgrade that is prepared.
    void remove(const std::string& id);

    [[nodiscard]] bool isUpgradePrepared(const std::string& id) const { return prepared_.contains(id); }

    /// A process that runs from the installed version of a package; nothing without one.
    [[nodiscard]] std::optional<pid_t> findUser(const std::string& id);

    /// Puts the prepared upgrade into service.
    void completeUpgrade(const std::string& id);

    /// What the database says about a package.
    [[nodiscard]] Core::ZUL::PackageData describe(const std::string& id) { return database_.packageData(id); }

    /// Whether the record of an installed package is there. What cannot be looked at counts as there. Any
    /// thread.
    [[nodiscard]] bool isOnDisk(const std::string& id) const;

    /// Every installed package that can be told on a bus.
    [[nodiscard]] PackageList list();

private:
    void requireArchitecture(const Core::ZUL::Package& package) const;
    [[nodiscard]] bool isInstalled(const std::string& id);

    Core::ZUL::Database database_;
    Settings settings_;
    std::vector<std::string> recovered_;
    std::map<std::string, Core::ZUL::PackageIdentity> prepared_; // by identifier
};

} // namespace Devkit
