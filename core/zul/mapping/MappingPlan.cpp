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

void planRule(const MappingRule& rule, const std::filesystem::path& versionDirectory, bool isNew,
              std::vector<MappingPlan::Entry>& entries) {
    const auto source = versionDirectory / rule.source;
    const auto target = std::filesystem::path(rule.target).lexically_normal();
    for (const auto& entry : std::filesystem::recursive_directory_iterator(source)) {
        std::error_code unknown;
        bool isDirectory = entry.is_directory(unknown);
        if (unknown) {
            const auto status = Common::statusOf(entry.path());
            isDirectory = status && S_ISDIR(status->st_mode);
        }
        if (isDirectory) {
            continue;
        }
        // Taken from the text, not normalized: it is the path that was visited.
        const std::filesystem::path relative = entry.path().native().substr(source.native().size() + 1);
        if (!canBeMapped(relative)) {
            if (isNew) {
                throw Error(ErrorCode::BadPackage, "file name can't be mapped: " + entry.path().native());
            }
            // It was installed by a release that accepted such names.
            Common::logWarning() << "file name can't be mapped: " << Common::quoted(entry.path());
            continue;
        }
        entries.push_back({rule.source / relative, target / relative});
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
    try {
        for (const auto& rule : mappingRules(package)) {
            if (hasDirectory(version.get(), rule.source)) {
                planRule(rule, versionDirectory, isNew, plan.entries);
                plan.kind = std::max(plan.kind, rule.kind);
            }
        }
    } catch (const std::filesystem::filesystem_error& error) {
        throw Error(ErrorCode::Filesystem, error.what());
    }
    return plan;
}

} // namespace Core::ZUL
