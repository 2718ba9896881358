#pragma once

#include "common/Files.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Core::ZUL {

/// The places of a version's mappings, absolute paths of the running system, in the order of creation.
using MappingList = std::vector<std::string>;

/// Name of the list in a version directory: a text file with one place a line.
inline const std::string mappingListName = "symlink.list";

/// Reads a version's list, a regular file of at most 256 MiB; nothing if it has none. Throws Error, code
/// Filesystem, when it cannot be read. Any thread.
/// @param read  reads the file
[[nodiscard]] std::optional<MappingList>
readMappingList(const std::filesystem::path& versionDirectory,
                const Common::FileReader& read = Common::readRegularFile);

/// Replaces a version's list atomically unless it is unchanged. Throws Error, code Filesystem. Any thread.
void writeMappingList(const std::filesystem::path& versionDirectory, const MappingList& list,
                      Common::Durability durability);

/// Adds another version's list to this version's, so that outdated mappings are removed when this version's
/// mappings are created or refreshed. Flushed to disk on return. Throws Error, code Filesystem. Any thread.
/// @return false when the other version has no list
bool keepMappingListOf(const std::filesystem::path& otherVersion,
                       const std::filesystem::path& versionDirectory);

/// The first list, followed by the entries that only the second has.
[[nodiscard]] MappingList mergedMappingList(MappingList first, const MappingList& second);

} // namespace Core::ZUL
