#pragma once

#include "core/zul/PackageIdentity.h"
#include "core/zul/mapping/MappingList.h"
#include "core/zul/mapping/MappingRules.h"

#include <filesystem>
#include <vector>

namespace Core::ZUL {

/// The mappings of a version, which are all of one kind.
struct MappingPlan {
    struct Entry {
        std::filesystem::path file;   ///< relative to the version directory
        std::filesystem::path target; ///< the place, an absolute path of the running system
    };

    MappingKind kind = MappingKind::Link;
    std::vector<Entry> entries;

    /// The mapping list of the plan.
    [[nodiscard]] MappingList targets() const;
};

/// Whether a file can be mapped. A path with a control character cannot be stored in a mapping list, and a
/// name that is equal to the temporary name of mappings is reserved.
/// @param file  relative to the version directory
[[nodiscard]] bool canBeMapped(const std::filesystem::path& file);

/// Plans the mappings of a version: every file and link below a rule's source directory, in the order of the
/// rules and then of the directories. If a rule of kind Copy applies, all mappings are copies. A file that
/// cannot be mapped is omitted with a warning.
/// Throws Error, code Filesystem, for a source directory that is a link out of the version, and for failures
/// to read.
/// @param isNew  throws Error, code BadPackage, for a file that cannot be mapped
[[nodiscard]] MappingPlan planMappings(const PackageIdentity& package,
                                       const std::filesystem::path& versionDirectory, bool isNew = false);

} // namespace Core::ZUL
