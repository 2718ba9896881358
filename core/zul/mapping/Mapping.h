#pragma once

#include "core/zul/mapping/MappingRules.h"
#include "core/zul/mapping/SystemTree.h"

#include <filesystem>
#include <optional>
#include <string>
#include <sys/stat.h>

namespace Core::ZUL {

/// A file of a package that is to be seen in a system directory.
struct MappedFile {
    std::filesystem::path versionDirectory;
    std::filesystem::path relative; ///< below the version directory

    [[nodiscard]] std::filesystem::path path() const { return versionDirectory / relative; }
};

/// One place in the system directories where a mapping is or could be. A mapping is a symbolic link to a
/// package's file, or a copy of it that names it in the extended attribute "user.zul.mapping.target".
/// Used by the thread that uses the tree. Failures are Error, code Filesystem, also of the questions: what is
/// taken for another's would never be removed.
class Mapping {
public:
    /// Whether a path can be a mapping's: absolute, with a name of its own at its end.
    [[nodiscard]] static bool isPlace(const std::filesystem::path& target);

    /// @param target  the place, as the running system sees it. Throws when it can be no mapping's.
    Mapping(SystemTree& tree, std::filesystem::path target);

    [[nodiscard]] const std::filesystem::path& target() const { return target_; }

    /// Whether there is anything at the place, a link that leads nowhere included.
    [[nodiscard]] bool exists() const;

    /// Whether a symbolic link or a marked copy is at the place.
    [[nodiscard]] bool isMapping() const;

    /// The package file that the mapping stands for.
    [[nodiscard]] std::filesystem::path mappingTarget() const;

    /// Whether it is a mapping of a file of the package, also when the package's directory was reached by
    /// another path when it was made.
    [[nodiscard]] bool belongsTo(const std::filesystem::path& packageDirectory) const;

    /// Whether a mapping may take the place of what is there: of a marked copy or a link into the database.
    /// Any other link is the system's.
    [[nodiscard]] bool isReplaceable(const std::filesystem::path& databaseRoot) const;

    /// Whether it is a mapping of this file, of this kind and, if a copy, up to date.
    [[nodiscard]] bool standsFor(const MappedFile& file, MappingKind kind) const;

    /// Makes the mapping, and the directories above it, in one step in the place of a file or link that is
    /// there. A copy has content, owner, mode, times and extended attributes of the package's file, which
    /// must be a regular file inside its version directory, and is on disk before it has its name.
    void createMapping(const MappedFile& file, MappingKind kind) const;

    /// Deletes what is at the place.
    void remove() const;

    /// Deletes an empty directory at the place, if there is one.
    void removeDirectory() const;

private:
    [[nodiscard]] int directory() const { return tree_.open(parent_); }
    /// For calls that know only paths: the place by way of the open directory.
    [[nodiscard]] std::string throughDescriptor() const;
    /// The status of what is at the place; nothing when nothing is.
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
