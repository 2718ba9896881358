#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace Devkit {

/// The fields of a desktop entry (freedesktop.org, version 1.5) that are used to start an application. A
/// plain value.
struct DesktopEntry {
    std::filesystem::path file;
    std::string name; ///< key "Name"
    std::string icon; ///< key "Icon"; may be empty
    std::string exec; ///< key "Exec", with the escapes of a string value resolved
};

/// Reads the group "Desktop Entry" of the file. Throws std::runtime_error, naming the file, when it cannot be
/// read, is not a desktop entry or is not of an application.
[[nodiscard]] DesktopEntry readDesktopEntry(const std::filesystem::path& file);

/// The program and its arguments: "Exec" split, with field codes expanded for a start without files. Throws
/// std::runtime_error, naming the file, for an unterminated quote, an unknown field code or an empty command.
[[nodiscard]] std::vector<std::string> commandOf(const DesktopEntry& entry);

} // namespace Devkit
