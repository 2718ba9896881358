#pragma once

#include "core/zul/PackageIdentity.h"
#include "core/zul/mapping/MappingList.h"
#include "core/zul/mapping/MappingRules.h"

#include <filesystem>
#include <vector>

namespace Core::ZUL {

/// Which files of a version appear where, and how all of them do.
struct MappingPlan {
    struct Entry {
        std::filesystem::path file;   ///< relative to the version directory
        std::filesystem::path target; ///< absolute, as the running system sees it
    };

    MappingKind kind = MappingKind::Link;
    std::vector<Entry> entries;

    /// The mapping list of the plan.
    [[nodiscard]] MappingList targets() const;
};

/// Whether a file can have a mapping: not with a control character in its path, which no mapping list can
/// hold, nor with the name that mappings have while they are made.
/// @param file  relative to the version directory
[[nodiscard]] bool canBeMapped(const std::filesystem::path& file);

/// Works out the mappings of a version from the rules and its directory's content: every entry below a
/// rule's source that is not a directory, in the order of the rules and then of the directories. One rule of
/// kind copy that applies makes all of them copies. A file that cannot be mapped is left out with a warning.
/// Throws Error, code Filesystem, for a source directory that is a link out of the version, and for what
/// cannot be read.
/// @param isNew  a file that cannot be mapped is an error, code BadPackage
[[nodiscard]] MappingPlan planMappings(const PackageIdentity& package,
                                       const std::filesystem::path& versionDirectory, bool isNew = false);

} // namespace Core::ZUL
