#pragma once

#include <map>
#include <string>
#include <sys/stat.h>

namespace Core::ZUL {

/// Copies a file's content, owner, mode, extended attributes and times into a new, empty file. What the new
/// file's file system cannot hold is a failure. Throws Error, code Filesystem. Any thread.
/// @param from  descriptor open for reading
/// @param to    descriptor open for writing
/// @param more  extended attributes that the new file has besides, in place of the file's own of those names
void copyFile(int from, int to, const std::map<std::string, std::string>& more = {});

/// Whether a file has the size, owner, mode and modification time of another, as its copy has while neither
/// is changed. Whose copy it is its attributes have to say. Any thread.
[[nodiscard]] bool isCopyOf(const struct stat& copy, const struct stat& file) noexcept;

} // namespace Core::ZUL
