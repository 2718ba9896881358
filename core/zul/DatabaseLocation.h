#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace Core::ZUL {

/// Where a package database is, and the one question that can be asked without opening it. An immutable
/// value; any thread.
class DatabaseLocation {
public:
    static constexpr const char* configurationFile = "/etc/zul/zul.conf";

    /// Takes the directories from the configuration file, read afresh; never fails because of it. For what is
    /// absent, or a file that cannot be read or parsed, the defaults are used, "/opt/app" and "/opt/zul/tmp".
    /// @param configuration  INI file, section "database", keys "root_directory" and "temp_directory"
    explicit DatabaseLocation(const std::filesystem::path& configuration = configurationFile);

    /// The root directory that the text of a configuration names, or the default; nothing for a text that
    /// cannot be parsed.
    [[nodiscard]] static std::optional<std::filesystem::path> rootDirectoryIn(const std::string& text);

    /// Takes the directories as given, made absolute from the working directory.
    DatabaseLocation(const std::filesystem::path& root, const std::filesystem::path& temp);

    /// Has a directory for each installed package.
    [[nodiscard]] const std::filesystem::path& rootDirectory() const { return rootDirectory_; }
    /// Where packages are unpacked, on the same file system.
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

/// A path made absolute from the working directory; unchanged where there is none. Any thread.
[[nodiscard]] std::filesystem::path wholePath(const std::filesystem::path& path);

} // namespace Core::ZUL
