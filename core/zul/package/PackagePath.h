#pragma once

#include "core/zul/mapping/MappingRules.h"

#include <filesystem>
#include <string>
#include <vector>

namespace Core::ZUL {

/// Finds the places of a package's files in the package's own tree: the way back from what the mapping rules
/// do. An immutable value; any thread.
class PackagePath {
public:
    explicit PackagePath(const PackageIdentity& package)
        : rules_(mappingRules(package)) {}

    /// The place of a system path in the package: "/usr/bin/tool" gives "bin/tool", "/usr/bin" gives "bin".
    /// What is under no rule keeps its path without the root. Works on the text alone and does not judge it:
    /// ".." stays what it is.
    [[nodiscard]] std::filesystem::path toPackagePath(const std::string& systemPath) const;

    /// What a symbolic link in the package's tree has to hold so that it leads to the place of its target.
    ///
    /// A target that is absolute or leads to a parent directory is taken as a system path, seen from the
    /// link's directory in the payload, and becomes a relative link to its place in the package, which holds
    /// wherever the tree is moved. More ".." than there are directories end at "/". Resolving looks at no
    /// file: the system's own links, those of an installed version among them, must not decide what a package
    /// holds. Any other target is kept.
    ///
    /// @param link    system path of the link
    /// @param target  what the payload says
    /// Throws Error, code BadPackage, for an empty target.
    [[nodiscard]] std::filesystem::path linkTarget(const std::string& link, const std::string& target) const;

private:
    std::vector<MappingRule> rules_;
};

} // namespace Core::ZUL
