#pragma once

#include "core/zul/mapping/MappingRules.h"
#include "core/zul/mapping/SystemTree.h"

#include <filesystem>
#include <optional>
#include <string>
#include <sys/stat.h>

namespace Core::ZUL {

/// A file of a package that is mapped into a system directory.
struct MappedFile {
    std::filesystem::path versionDirectory;
    std::filesystem::path relative; ///< below the version directory

    [[nodiscard]] std::filesystem::path path() const { return versionDirectory / relative; }
};

/// One place in the system directories where a mapping is or could be. A mapping is a symbolic link to a
/// package's file, or a copy with the file's path in the extended attribute "user.zul.mapping.target".
/// Used by the thread that uses the tree. Failures are Error, code Filesystem. The const functions throw too
/// instead of returning false: a mapping mistaken for a foreign file would never be removed.
class Mapping {
public:
    /// Whether a path can be that of a mapping: absolute and with a file name.
    [[nodiscard]] static bool isPlace(const std::filesystem::path& target);

    /// @param target  the place, a path of the running system. Throws unless isPlace().
    Mapping(SystemTree& tree, std::filesystem::path target);

    [[nodiscard]] const std::filesystem::path& target() const { return target_; }

    /// Whether there is a file at the place, or a link, even a dangling one.
    [[nodiscard]] bool exists() const;

    /// Whether a symbolic link or a marked copy is at the place.
    [[nodiscard]] bool isMapping() const;

    /// The package file that is mapped.
    [[nodiscard]] std::filesystem::path mappingTarget() const;

    /// Whether this is a mapping of a file of the package, also if it was created with another path of the
    /// package's directory.
    [[nodiscard]] bool belongsTo(const std::filesystem::path& packageDirectory) const;

    /// Whether a mapping may replace the file at the place: a marked copy or a link into the database. Any
    /// other link is the system's.
    [[nodiscard]] bool isReplaceable(const std::filesystem::path& databaseRoot) const;

    /// Whether this is a mapping of this file and kind and, for a copy, up to date.
    [[nodiscard]] bool standsFor(const MappedFile& file, MappingKind kind) const;

    /// Creates the mapping and its parent directories. An existing file or link is replaced atomically. A
    /// copy gets content, owner, mode, times and extended attributes of the package's file, which must be a
    /// regular file inside its version directory. It is flushed to disk before it is renamed into place.
    void createMapping(const MappedFile& file, MappingKind kind) const;

    /// Deletes the file or link at the place.
    void remove() const;

    /// Deletes an empty directory at the place, if there is one.
    void removeDirectory() const;

private:
    [[nodiscard]] int directory() const { return tree_.open(parent_); }
    /// For system calls that take only paths: the place below /proc/self/fd.
    [[nodiscard]] std::string throughDescriptor() const;
    /// The status of the file at the place; nothing if there is none.
    [[nodiscard]] std::optional<struct stat> status() const;
    [[nodiscard]] bool isLink() const {
        const auto present = status();
        return present && S_ISLNK(present->st_mode);
    }
    void createLink(const MappedFile& file, int parent) const;
    void createCopy(const MappedFile& file, int parent) const;

    SystemTree& tree_;
    std::filesystem::path target_;
    std::filesystem::path parent_;
    std::string name_;
};

} // namespace Core::ZUL
