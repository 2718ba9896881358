#pragma once

#include "common/Files.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Core::ZUL {

/// The targets of a version's mappings, absolute and as the running system sees them, in the order of
/// creation.
using MappingList = std::vector<std::string>;

/// Name of the list in a version directory: a text file, each line a target and a line feed.
inline const std::string mappingListName = "symlink.list";

/// Reads a version's list; nothing when it has none, which is a regular file of at most 256 MiB. Throws
/// Error, code Filesystem, when it cannot be read this time. Any thread.
/// @param read  reads the file
[[nodiscard]] std::optional<MappingList>
readMappingList(const std::filesystem::path& versionDirectory,
                const Common::FileReader& read = Common::readRegularFile);

/// Replaces a version's list in one step, unless it says the same already. Throws Error, code Filesystem. Any
/// thread.
void writeMappingList(const std::filesystem::path& versionDirectory, const MappingList& list,
                      Common::Durability durability);

/// Adds another version's list to this one's, so that mappings that are no longer wanted are removed when the
/// version's are made or refreshed. On disk when it returns. Throws Error, code Filesystem. Any thread.
/// @return false when the other version has no list
bool keepMappingListOf(const std::filesystem::path& otherVersion,
                       const std::filesystem::path& versionDirectory);

/// The first list, and behind it what only the second has.
[[nodiscard]] MappingList mergedMappingList(MappingList first, const MappingList& second);

} // namespace Core::ZUL
