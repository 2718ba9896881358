#include "common/Files.h"
#include "common/LogLine.h"
#include "core/zul/Mapping.h"
#include "core/zul/MappingList.h"
#include "core/zul/MappingPlan.h"
#include "core/zul/Mappings.h"

#include <algorithm>
#include <unordered_set>

namespace Core::ZUL {

namespace {

using Common::Error;
using Common::ErrorCode;
using Common::quoted;

MappingList listIfAny(const std::filesystem::path& versionDirectory) {
    return Common::leadsSomewhere(versionDirectory / mappingListName) ? readMappingList(versionDirectory)
                                                                      : MappingList{};
}

/// Removes the package's mappings that the plan does not have.
/// @return the targets at which that failed
MappingList removeStale(SystemTree& tree, const MappingList& listed,
                        const std::unordered_set<std::string>& planned,
                        const std::filesystem::path& packageDirectory) {
    MappingList left;
    for (const auto& target : listed) {
        try {
            const Mapping mapping(tree, target);
            if (!planned.contains(target) && mapping.standsForFileIn(packageDirectory)) {
                mapping.remove();
            }
        } catch (const Error& error) {
            Common::logWarning() << "couldn't remove the generated package mapping: "
                                 << Common::quoted(target) << error;
            left.push_back(target);
        }
    }
    return left;
}

/// Makes one mapping if nothing is in its place or an outdated one of the package.
void refreshOne(const Mapping& mapping, const MappedFile& file, MappingKind kind) {
    if (mapping.exists()) {
        if (!mapping.standsForFileIn(file.versionDirectory.parent_path())) {
            Common::logWarning() << "leaving what is in the place of a mapping: " << quoted(mapping.target());
            return;
        }
        if (mapping.standsFor(file, kind)) {
            return;
        }
        mapping.remove();
    }
    mapping.createMapping(file, kind);
}

} // namespace

void Mappings::keepListOf(const std::filesystem::path& otherVersion,
                          const std::filesystem::path& versionDirectory) noexcept {
    try {
        const auto list = listIfAny(otherVersion);
        if (!list.empty()) {
            writeMappingList(versionDirectory, mergedMappingList(listIfAny(versionDirectory), list),
                             Common::Durability::Now);
        }
    } catch (const Error& error) {
        Common::logFailure(Common::LogLevel::Warning, "couldn't keep the mapping list of another version",
                           error);
    }
}

void Mappings::refreshMappings(const Package& package, const std::filesystem::path& versionDirectory) const {
    const auto plan = planMappings(package, versionDirectory);
    const auto wanted = plan.targets();
    const auto listed = listIfAny(versionDirectory);
    const auto possible = mergedMappingList(wanted, listed);
    writeMappingList(versionDirectory, possible, Common::Durability::Now);

    SystemTree tree(systemRoot_);
    const auto left =
        removeStale(tree, listed, {wanted.begin(), wanted.end()}, versionDirectory.parent_path());
    bool isComplete = true;
    for (const auto& entry : plan.entries) {
        const MappedFile file{versionDirectory, entry.file};
        try {
            refreshOne(Mapping(tree, entry.target), file, plan.kind);
        } catch (const Error& error) {
            Common::logError() << "couldn't create mapping " << quoted(file.path()) << " -> "
                               << quoted(entry.target) << error;
            isComplete = false;
        }
    }
    if (const auto kept = mergedMappingList(wanted, left); kept != possible) {
        // Mappings that came back with the power would be on no list any more.
        flush();
        writeMappingList(versionDirectory, kept, Common::Durability::Now);
    }
    if (!isComplete) {
        throw Error(ErrorCode::Filesystem, "couldn't create mappings");
    }
}

} // namespace Core::ZUL
