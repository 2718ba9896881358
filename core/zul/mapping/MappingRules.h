#pragma once

#include "core/zul/PackageIdentity.h"

#include <string>
#include <vector>

namespace Core::ZUL {

enum class MappingKind { Link = 0, Copy = 1 };

/// Maps a directory of a package to a directory of the system.
struct MappingRule {
    std::string target; ///< system directory, absolute, with a trailing "/"
    std::string source; ///< directory relative to the package's version directory
    MappingKind kind;
};

/// The rules for a package, in the order in which they are tried. Any thread.
[[nodiscard]] std::vector<MappingRule> mappingRules(const PackageIdentity& package);

/// The place of a package's file in the system directories; empty if no rule maps it. Any thread.
/// @param file  relative to the version directory
[[nodiscard]] std::string placeOf(const std::string& file, const std::vector<MappingRule>& rules);

} // namespace Core::ZUL
