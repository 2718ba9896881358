#pragma once

#include "common/Names.h"

#include <filesystem>
#include <string>

namespace Core::ZUL {

/// The on-disk database of installed packages: a root directory with a directory per package, and a temporary
/// directory for unpacking.
class Database {
public:
    /// Takes the directories from the configuration file, read afresh; never fails because of it. What is
    /// absent, or a file that cannot be read or parsed, gives the defaults "/opt/app" and "/opt/zul/tmp".
    /// @param configuration  INI file, section "database", keys "root_directory" and "temp_directory"
    explicit Database(const std::filesystem::path& configuration = Common::Names::Files::zulConfiguration);

    [[nodiscard]] const std::filesystem::path& rootDirectory() const { return rootDirectory_; }
    [[nodiscard]] const std::filesystem::path& tempDirectory() const { return tempDirectory_; }

    /// Whether an upgrade of the package is prepared and not yet completed: whether root / packageId / "next"
    /// is a directory, links followed. The identifier is taken as a relative path and not checked. Throws
    /// std::filesystem::filesystem_error for anything but absence, for example a root that may not be
    /// searched or a name that is too long.
    [[nodiscard]] bool hasPreparedNextVersion(const std::string& packageId) const;

private:
    std::filesystem::path rootDirectory_;
    std::filesystem::path tempDirectory_;
};

} // namespace Core::ZUL
