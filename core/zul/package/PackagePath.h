#pragma once

#include "core/zul/mapping/MappingRules.h"

#include <filesystem>
#include <string>
#include <vector>

namespace Core::ZUL {

/// Translates system paths to paths in the package's directory: the inverse of the mapping rules. An
/// immutable value; any thread.
class PackagePath {
public:
    explicit PackagePath(const PackageIdentity& package)
        : rules_(mappingRules(package)) {}

    /// The path in the package of a system path: "/usr/bin/tool" gives "bin/tool", "/usr/bin" gives "bin". A
    /// path that no rule matches loses only its leading "/". Only the text is translated: ".." is not
    /// resolved or refused.
    [[nodiscard]] std::filesystem::path toPackagePath(const std::string& systemPath) const;

    /// The target of a symbolic link in the package's directory.
    ///
    /// A target in the payload that is absolute or leads to a parent directory is resolved from the link's
    /// system path. The result is a relative link to its place in the package, which stays valid when the
    /// directory is moved. ".." above "/" stays at "/". No file is read: the content of a package must not
    /// depend on links of the system, for example those of an installed version. Any other target is kept.
    ///
    /// @param link    system path of the link
    /// @param target  its target in the payload
    /// Throws Error, code BadPackage, for an empty target.
    [[nodiscard]] std::filesystem::path linkTarget(const std::string& link, const std::string& target) const;

private:
    std::vector<MappingRule> rules_;
};

} // namespace Core::ZUL
