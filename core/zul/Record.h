#pragma once

#include "common/Files.h"
#include "core/zul/PackageIdentity.h"

#include <filesystem>
#include <string>

namespace Core::ZUL {

/// Name of the record in a version directory, an INI file in the format of Boost.PropertyTree.
inline const std::string recordName = "quenra.pkg";

/// Writes a version directory's record: the package's identifier, version and, if it has both, its
/// organisation and application names, then the further entries. An existing record, also a link or one from
/// the payload, is replaced atomically; a link is not followed.
/// Throws Error, code Filesystem, "couldn't create quenra.pkg file " and the path, when the file cannot be
/// written or when an entry would be read back differently, for example one with a line break. Any thread.
/// @param entries  dotted keys with exactly one full stop; readers ignore whitespace at both ends of a value
void writeRecord(const PackageIdentity& package, const PackageData& entries,
                 const std::filesystem::path& directory);

/// Reads a record and checks that it has "general.id", "general.version", "certificate.subgroup" and
/// "certificate.id". Throws Error, code CorruptedInstalledPackage, when it is absent, is not a regular file
/// of at most 1 MiB, is not an INI file or lacks one of these keys. Any thread.
/// @param read  reads the file
[[nodiscard]] PackageData readRecord(const std::filesystem::path& file,
                                     const Common::FileReader& read = Common::readRegularFile);

/// Parses a record's text as readRecord() does. The file's name is used in messages.
[[nodiscard]] PackageData parseRecord(const std::string& text, const std::filesystem::path& file);

} // namespace Core::ZUL
