#pragma once

namespace Core::ZUL {

/// Copies a file's content, owner, mode, extended attributes and times into a new, empty file. What the new
/// file's file system cannot hold is a failure. Throws Error, code Filesystem. Any thread.
/// @param from  descriptor open for reading
/// @param to    descriptor open for writing
void copyFile(int from, int to);

/// Whether two files have the same size, owner, mode, modification time and content. Throws as copyFile().
[[nodiscard]] bool isSameFile(int first, int second);

} // namespace Core::ZUL
