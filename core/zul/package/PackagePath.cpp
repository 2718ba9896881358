#include "core/zul/package/PackagePath.h"

#include "common/Error.h"

#include <algorithm>

namespace Core::ZUL {

namespace {

using std::filesystem::path;

bool mentionsParent(const path& text) { return std::find(text.begin(), text.end(), "..") != text.end(); }

/// The path without ".", empty components and a "/" at its end.
path inOneForm(const path& place) {
    const auto normal = place.lexically_normal();
    return normal.has_filename() ? normal : normal.parent_path();
}

} // namespace

path PackagePath::toPackagePath(const std::string& systemPath) const {
    const auto directory = systemPath + "/";
    for (const auto& rule : rules_) {
        if (rule.target == directory || rule.target == systemPath) {
            return rule.source;
        }
        if (systemPath.starts_with(rule.target)) {
            return rule.source / path(systemPath.substr(rule.target.size())).relative_path();
        }
    }
    return path(systemPath).relative_path();
}

path PackagePath::linkTarget(const std::string& link, const std::string& target) const {
    if (target.empty()) {
        throw Common::Error(Common::ErrorCode::BadPackage,
                            "the rpm package has a link that leads out of it: " + link + " -> ");
    }
    // If a component is a link, "name/.." may be another directory, so ".." is written only at the beginning.
    auto written = mentionsParent(target) ? path(target).lexically_normal() : path(target);
    if (target.front() != '/' && target.front() != '.' && *written.begin() != "..") {
        return written;
    }
    // The parent of "/" is "/".
    const auto resolved = inOneForm("/" / (inOneForm(link).parent_path() / written).relative_path());
    return ("/" / toPackagePath(resolved.native()))
        .lexically_relative("/" / inOneForm(toPackagePath(link)).parent_path());
}

} // namespace Core::ZUL
