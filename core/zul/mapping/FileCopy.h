#pragma once

#include <map>
#include <string>
#include <sys/stat.h>

namespace Core::ZUL {

/// Copies a file's content, owner, mode, extended attributes and times into a new, empty file. Fails if the
/// new file's file system does not support one of them. Throws Error, code Filesystem. Any thread.
/// @param from  descriptor open for reading
/// @param to    descriptor open for writing
/// @param more  further extended attributes; they replace the file's own of the same names
void copyFile(int from, int to, const std::map<std::string, std::string>& more = {});

/// Whether a file has the size, owner, mode and modification time of another, as an unchanged copy has. The
/// extended attributes, which name the file that was copied, are not compared. Any thread.
[[nodiscard]] bool isCopyOf(const struct stat& copy, const struct stat& file) noexcept;

} // namespace Core::ZUL
