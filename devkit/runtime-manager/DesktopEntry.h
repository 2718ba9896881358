#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace Devkit {

/// What an application's desktop entry, in freedesktop.org's format 1.5, says about starting it. A plain
/// value.
struct DesktopEntry {
    std::filesystem::path file;
    std::string name; ///< key "Name"
    std::string icon; ///< key "Icon", empty without one
    std::string exec; ///< key "Exec", with the escapes of a string value resolved
};

/// Reads the group "Desktop Entry" of the file. Throws std::runtime_error, naming the file, when it cannot be
/// read, is no desktop entry or describes no application.
[[nodiscard]] DesktopEntry readDesktopEntry(const std::filesystem::path& file);

/// The program and its arguments: "Exec" taken apart, with field codes expanded for a start without files.
/// Throws std::runtime_error, naming the file, for an open quote, an unknown field code or an empty command.
[[nodiscard]] std::vector<std::string> commandOf(const DesktopEntry& entry);

} // namespace Devkit
