#include "core/zul/mapping/MappingPlan.h"

#include "common/Files.h"
#include "common/LogLine.h"
#include "core/zul/mapping/SystemTree.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>

namespace Core::ZUL {

namespace {

using Common::Error;
using Common::ErrorCode;

bool hasDirectory(int version, const std::string& source) {
    if (Common::openWithin(version, source, O_PATH | O_DIRECTORY, Common::Resolve::Beneath)) {
        return true;
    }
    if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP) {
        throw Common::filesystemError("couldn't use directory " + source + " of the package");
    }
    return false;
}

/// @param source  the directory, relative to the version directory
void planDirectory(const std::filesystem::path& versionDirectory, const std::filesystem::path& source,
                   const std::filesystem::path& target, bool isNew,
                   std::vector<MappingPlan::Entry>& entries) {
    for (const auto& path : Common::entriesOf(versionDirectory / source)) {
        const auto name = path.filename();
        const auto file = source / name;
        auto status = Common::statusOf(path, AT_SYMLINK_NOFOLLOW);
        if (status && S_ISDIR(status->st_mode)) {
            planDirectory(versionDirectory, file, target / name, isNew, entries);
            continue;
        }
        if (status && S_ISLNK(status->st_mode)) {
            status = Common::statusOf(path);
        }
        if (status && S_ISDIR(status->st_mode)) {
            continue;
        }
        if (canBeMapped(file)) {
            entries.push_back({file, target / name});
        } else if (isNew) {
            throw Error(ErrorCode::BadPackage, "file name can't be mapped: " + path.native());
        } else {
            // It was installed by a release that accepted such names.
            Common::logWarning() << "file name can't be mapped: " << Common::quoted(path);
        }
    }
}

} // namespace

MappingList MappingPlan::targets() const {
    MappingList list;
    list.reserve(entries.size());
    for (const auto& entry : entries) {
        list.push_back(entry.target.native());
    }
    return list;
}

bool canBeMapped(const std::filesystem::path& file) {
    return std::all_of(file.begin(), file.end(), [](const auto& name) {
        return Common::isOrdinaryName(name.native()) && name != SystemTree::pendingName;
    });
}

MappingPlan planMappings(const PackageIdentity& package, const std::filesystem::path& versionDirectory,
                         bool isNew) {
    const Common::UniqueFd version(open(versionDirectory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!version) {
        throw Common::filesystemError("couldn't open version directory " + versionDirectory.native());
    }
    MappingPlan plan;
    for (const auto& rule : mappingRules(package)) {
        if (hasDirectory(version.get(), rule.source)) {
            // Without its slash: without memory libstdc++ crashes when it extends a path that ends with one.
            const auto target = std::filesystem::path(rule.target).lexically_normal().parent_path();
            planDirectory(versionDirectory, rule.source, target, isNew, plan.entries);
            plan.kind = std::max(plan.kind, rule.kind);
        }
    }
    return plan;
}

} // namespace Core::ZUL
