#pragma once

#include "core/zul/MappingRules.h"
#include "core/zul/SystemTree.h"

#include <filesystem>
#include <optional>
#include <string>
#include <sys/types.h>

namespace Core::ZUL {

/// A file of a package that is to be seen in a system directory.
struct MappedFile {
    std::filesystem::path versionDirectory;
    std::filesystem::path relative; ///< below the version directory

    [[nodiscard]] std::filesystem::path path() const { return versionDirectory / relative; }
};

/// One place in the system directories where a mapping is or could be. A mapping is a symbolic link to a
/// package's file, or a copy of it that names it in the extended attribute "user.zul.mapping.target".
/// Used by the thread that uses the tree. Failures are Error, code Filesystem.
class Mapping {
public:
    /// @param target  absolute path of the place, as the running system sees it
    Mapping(SystemTree& tree, std::filesystem::path target);

    [[nodiscard]] const std::filesystem::path& target() const { return target_; }

    /// Whether there is anything at the place, a link that leads nowhere included.
    [[nodiscard]] bool exists() const;

    /// Whether a symbolic link or a marked copy is at the place; false on any failure.
    [[nodiscard]] bool isMapping() const noexcept;

    /// The package file that the mapping stands for.
    [[nodiscard]] std::filesystem::path mappingTarget() const;

    /// Whether it is a mapping of a file below the directory. Throws when that cannot be told, unlike
    /// isMapping(): what is taken for another's would never be removed.
    [[nodiscard]] bool standsForFileIn(const std::filesystem::path& directory) const;

    /// Whether it is a mapping of this file, of this kind and, if a copy, up to date.
    [[nodiscard]] bool standsFor(const MappedFile& file, MappingKind kind) const;

    /// Makes the mapping, and the directories above it. A copy appears whole or not at all, with content,
    /// owner, mode, times and extended attributes of the package's file, which must be a regular file inside
    /// its version directory.
    void createMapping(const MappedFile& file, MappingKind kind) const;

    /// Deletes what is at the place.
    void remove() const;

private:
    [[nodiscard]] int directory() const { return tree_.open(parent_); }
    /// For calls that know only paths: the place by way of the open directory.
    [[nodiscard]] std::string throughDescriptor() const;
    /// The type bits of what is at the place; nothing when nothing is.
    [[nodiscard]] std::optional<mode_t> fileType() const;
    [[nodiscard]] bool isLinkOrMarkedCopy() const;
    void createCopy(const MappedFile& file) const;

    SystemTree& tree_;
    std::filesystem::path target_;
    std::filesystem::path parent_;
    std::string name_;
};

} // namespace Core::ZUL
