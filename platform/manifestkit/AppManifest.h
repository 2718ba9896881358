#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

/// The platform's manifest library, libmanifestkit.so.1.
///
/// An application's manifest is a desktop entry file (freedesktop.org, version 1.5) with one group of this
/// platform, which names the owner of the application's shared data:
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

/// A parsed manifest. An immutable value; any thread.
class [[gnu::visibility("default")]] ManifestEntry {
public:
    /// Parses a manifest from memory.
    /// The file must be UTF-8 without NUL and begin with the group "[Desktop Entry]"; comments and blank
    /// lines are allowed anywhere. Duplicate groups, duplicate keys of a group, keys outside a group, names
    /// with characters that the format does not allow and other lines are refused, so that all readers of a
    /// manifest get the same values. Lines end with a line feed, which the last line may lack.
    /// @param bytes  the file's content, at most maximumSize bytes
    /// Throws std::runtime_error, whose text names the line, for any other content.
    [[nodiscard]] static ManifestEntry fromBytes(std::string_view bytes);

    /// Reads a file and parses it as fromBytes() does. Follows symbolic links; never blocks on a file that is
    /// not regular. Throws std::runtime_error, whose text names the path.
    [[nodiscard]] static ManifestEntry fromFile(const std::filesystem::path& path);

    /// The organisation's name, "OrganizationName" of the group "X-Application"; nothing when the group or
    /// key is missing or its value is empty. The text is not checked: check it before using it in a path.
    /// Throws std::runtime_error as value() does.
    [[nodiscard]] std::optional<std::string> appOrgname() const;

    /// The application's name, "ApplicationName" of the group "X-Application"; otherwise like appOrgname().
    [[nodiscard]] std::optional<std::string> appName() const;

    /// The value of a key of a group, of the format's type "string": the escapes \s, \n, \t, \r and \\ are
    /// replaced by space, line feed, tab, carriage return and backslash; "\;" is kept, for callers that split
    /// lists.
    /// @param group  the group's name without brackets, compared exactly
    /// @param key    the key, compared exactly; with "[LOCALE]" for a translation
    /// @return nothing when the group or the key is missing; an empty text for an empty value
    /// Throws std::runtime_error when the value has any other escape sequence.
    [[nodiscard]] std::optional<std::string> value(std::string_view group, std::string_view key) const;

    /// Maximum size of a manifest in bytes.
    static constexpr std::size_t maximumSize = std::size_t{1024} * 1024;

private:
    using Keys = std::map<std::string, std::string, std::less<>>;
    using Groups = std::map<std::string, Keys, std::less<>>;

    explicit ManifestEntry(Groups groups);

    Groups groups_; ///< values as in the file, with escapes
};

} // namespace AppManifest
