#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

/// The platform's manifest library, libmanifestkit.so.1.
///
/// An application's manifest is a desktop entry file as freedesktop.org defines the format, version 1.5,
/// with one group of this platform's own, which says to whom the application's shared data belongs:
///
///     [Desktop Entry]
///     Type=Application
///     Name=Tool
///     Exec=tool
///
///     [X-Application]
///     OrganizationName=org.example
///     ApplicationName=tool
namespace AppManifest {

/// A manifest that was read and parsed whole. An immutable value: any thread may use it, copies are
/// independent.
class [[gnu::visibility("default")]] ManifestEntry {
public:
    /// Parses a manifest from memory.
    /// The file is UTF-8 without NUL; its first group is "[Desktop Entry]"; comments and blank lines may
    /// stand anywhere. A group that appears twice, a key that appears twice in its group, a key outside a
    /// group, a name with characters that the format does not allow and a line of no known kind are refused,
    /// so all readers of a manifest see the same values. Lines end with a line feed; the last one need
    /// not.
    /// @param bytes  the file's content, at most maximumSize bytes
    /// Throws std::runtime_error, whose text names the line, for anything that is no such file.
    [[nodiscard]] static ManifestEntry fromBytes(std::string_view bytes);

    /// Reads the file and parses it as fromBytes() does. Follows symbolic links; never blocks on a file that
    /// is no regular one. Throws std::runtime_error, whose text names the path.
    [[nodiscard]] static ManifestEntry fromFile(const std::filesystem::path& path);

    /// The organisation's name, "OrganizationName" of the group "X-Application"; nothing when the group or
    /// key is missing or its value is empty. Any text that the manifest's author liked: who makes a path from
    /// it checks it first. Throws std::runtime_error as value() does.
    [[nodiscard]] std::optional<std::string> appOrgname() const;

    /// The application's name, "ApplicationName" of the group "X-Application"; otherwise like appOrgname().
    [[nodiscard]] std::optional<std::string> appName() const;

    /// The value of a key of a group, read as the format's type "string": \s, \n, \t, \r and \\ stand for
    /// blank, line feed, tab, carriage return and backslash; "\;" is kept for who splits a list.
    /// @param group  the group's name without brackets, compared exactly
    /// @param key    the key, compared exactly; a translation's key ends in "[LOCALE]" as it does in the file
    /// @return nothing when the group or the key is missing; an empty text for an empty value
    /// Throws std::runtime_error when the value has a backslash before any other character.
    [[nodiscard]] std::optional<std::string> value(std::string_view group, std::string_view key) const;

    /// Bytes that a manifest may have at most.
    static constexpr std::size_t maximumSize = std::size_t{1024} * 1024;

private:
    using Keys = std::map<std::string, std::string, std::less<>>;
    using Groups = std::map<std::string, Keys, std::less<>>;

    explicit ManifestEntry(Groups groups);

    Groups groups_; ///< values as the file has them, escapes and all
};

} // namespace AppManifest
