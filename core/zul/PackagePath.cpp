#include "core/zul/PackagePath.h"

#include "common/Error.h"

#include <algorithm>

namespace Core::ZUL {

namespace {

using std::filesystem::path;

bool mentionsParent(const path& text) { return std::find(text.begin(), text.end(), "..") != text.end(); }

/// Whether a system path climbs above "/" on its way. The kernel would stop there; in a package it would
/// leave.
bool climbsAboveRoot(const path& systemPath) {
    const auto below = systemPath.relative_path().lexically_normal();
    return !below.empty() && *below.begin() == "..";
}

/// The same place, named in the one form that has no ".", no empty component and no "/" at its end.
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
    const auto refuse = [&] {
        return Common::Error(Common::ErrorCode::BadPackage,
                             "the rpm package has a link that leads out of it: " + link + " -> " + target);
    };
    if (target.empty()) {
        throw refuse();
    }
    const auto directory = inOneForm(toPackagePath(link)).parent_path();
    if (target.front() != '/' && target.front() != '.') {
        // A link on the way could make "name/.." another place than the text says, so what is written has no
        // ".." but at its beginning, where it counts from the link's own directory.
        auto kept = mentionsParent(target) ? path(target).lexically_normal() : path(target);
        if (climbsAboveRoot(directory / kept)) {
            throw refuse();
        }
        return kept;
    }
    const auto resolved = target.front() == '/' ? path(target) : inOneForm(link).parent_path() / target;
    if (climbsAboveRoot(resolved)) {
        throw refuse();
    }
    const auto place = inOneForm(resolved);
    return ("/" / toPackagePath(place.native())).lexically_relative("/" / directory);
}

} // namespace Core::ZUL
