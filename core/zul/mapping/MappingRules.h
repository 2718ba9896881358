#pragma once

#include "core/zul/PackageIdentity.h"

#include <string>
#include <vector>

namespace Core::ZUL {

enum class MappingKind { Link = 0, Copy = 1 };

/// Which directory of a package's tree appears in which directory of the system, and how.
struct MappingRule {
    std::string target; ///< system directory, absolute, with a trailing "/"
    std::string source; ///< directory relative to the package's version directory
    MappingKind kind;
};

/// The rules for a package, in the order in which they are tried. Any thread.
[[nodiscard]] std::vector<MappingRule> mappingRules(const PackageIdentity& package);

/// Where the system sees a file of a package; empty when no rule maps it. Any thread.
/// @param file  relative to the version directory
[[nodiscard]] std::string placeOf(const std::string& file, const std::vector<MappingRule>& rules);

} // namespace Core::ZUL
