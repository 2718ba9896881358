#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace Core::ZUL {

/// The location of a package database. An immutable value; any thread.
class DatabaseLocation {
public:
    static constexpr const char* configurationFile = "/etc/zul/zul.conf";

    /// Reads the directories from the configuration file. For an absent key, and for a file that cannot be
    /// read or parsed, the defaults are used: "/opt/app" and "/opt/zul/tmp".
    /// @param configuration  INI file, section "database", keys "root_directory" and "temp_directory"
    explicit DatabaseLocation(const std::filesystem::path& configuration = configurationFile);

    /// The same, but returns nothing if the file exists and cannot be read: the directories are then unknown.
    [[nodiscard]] static std::optional<DatabaseLocation>
    ifReadable(const std::filesystem::path& configuration = configurationFile);

    /// The root directory in the text of a configuration, or the default; nothing for a text that cannot be
    /// parsed.
    [[nodiscard]] static std::optional<std::filesystem::path> rootDirectoryIn(const std::string& text);

    /// Uses the given directories, made absolute from the working directory.
    DatabaseLocation(const std::filesystem::path& root, const std::filesystem::path& temp);

    /// Has a directory for each installed package.
    [[nodiscard]] const std::filesystem::path& rootDirectory() const { return rootDirectory_; }
    /// Packages are unpacked in it, on the same file system.
    [[nodiscard]] const std::filesystem::path& tempDirectory() const { return tempDirectory_; }

    /// Whether an upgrade of the package is prepared and not yet completed: whether root / packageId / "next"
    /// is a directory, links followed. The identifier is used as a relative path and not checked. Throws
    /// std::filesystem::filesystem_error for any error but absence, for example no search permission for the
    /// root or a name that is too long.
    [[nodiscard]] bool hasPreparedNextVersion(const std::string& packageId) const;

private:
    std::filesystem::path rootDirectory_;
    std::filesystem::path tempDirectory_;
};

/// Makes a path absolute from the working directory; returns it unchanged if that was deleted. Any thread.
[[nodiscard]] std::filesystem::path wholePath(const std::filesystem::path& path);

} // namespace Core::ZUL
