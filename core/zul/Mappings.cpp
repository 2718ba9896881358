#include "core/zul/Mappings.h"

#include "common/Files.h"
#include "common/LogLine.h"
#include "core/zul/Mapping.h"
#include "core/zul/MappingPlan.h"

#include <algorithm>
#include <iterator>

namespace Core::ZUL {

namespace {

using Common::Error;
using Common::ErrorCode;
using Common::quoted;

void replaceWithMapping(const Mapping& mapping, const MappedFile& file, MappingKind kind) {
    if (mapping.exists()) {
        if (!mapping.isMapping()) {
            throw Error(ErrorCode::Filesystem,
                        "attempt to override system file with package mapping: " + mapping.target().native());
        }
        try {
            mapping.remove();
        } catch (const Error&) {
            throw Error(ErrorCode::Filesystem,
                        "couldn't clean up existing mapping: " + mapping.target().native());
        }
    }
    mapping.createMapping(file, kind);
}

/// @return whether all of them went
bool removeCreated(const std::vector<Mapping>& created) {
    bool isComplete = true;
    Common::logInfo() << "cleaning up created mappings";
    for (const auto& mapping : created) {
        try {
            mapping.remove();
        } catch (const Error& error) {
            Common::logWarning() << "couldn't clean up created mapping: " << quoted(mapping.target())
                                 << error;
            isComplete = false;
        }
    }
    return isComplete;
}

/// Removes one listed mapping if it is the package's own.
/// @return false when that failed
bool removeListed(SystemTree& tree, const std::string& target,
                  const std::filesystem::path& packageDirectory) {
    try {
        const Mapping mapping(tree, target);
        if (mapping.standsForFileIn(packageDirectory)) {
            mapping.remove();
            return true;
        }
        Common::logWarning() << "skip removing the generated package symlink, since it was most likely "
                                "overwritten via rpm: "
                             << Common::quoted(target);
        return true;
    } catch (const Error& error) {
        Common::logWarning() << "couldn't remove the generated package mapping: " << Common::quoted(target)
                             << error;
        return false;
    }
}

} // namespace

void Mappings::writeList(const Package& package, const std::filesystem::path& versionDirectory) {
    writeMappingList(versionDirectory, planMappings(package, versionDirectory).targets(),
                     Common::Durability::Later);
}

void Mappings::createMappings(const Package& package, const std::filesystem::path& versionDirectory,
                              const MappingList& left) const {
    const auto plan = planMappings(package, versionDirectory);
    writeMappingList(versionDirectory, mergedMappingList(plan.targets(), left), Common::Durability::Now);
    SystemTree tree(systemRoot_);
    std::vector<Mapping> created;
    created.reserve(plan.entries.size());
    for (const auto& entry : plan.entries) {
        const MappedFile file{versionDirectory, entry.file};
        Mapping mapping(tree, entry.target);
        try {
            replaceWithMapping(mapping, file, plan.kind);
        } catch (const Error& error) {
            Common::logError() << "couldn't create mapping " << quoted(file.path()) << " -> "
                               << quoted(mapping.target()) << error;
            if (removeCreated(created) && left.empty()) {
                removeList(versionDirectory);
            }
            throw Error(ErrorCode::Filesystem, "couldn't create mappings");
        }
        created.push_back(std::move(mapping));
    }
}

MappingList Mappings::removeMappings(const std::filesystem::path& versionDirectory) const {
    const auto list = readMappingList(versionDirectory);
    SystemTree tree(systemRoot_);
    MappingList left;
    std::copy_if(list.begin(), list.end(), std::back_inserter(left), [&](const auto& target) {
        return !removeListed(tree, target, versionDirectory.parent_path());
    });
    return left;
}

/// For mappings that are gone. They have to be gone on disk before the only list that names them is.
void Mappings::removeList(const std::filesystem::path& versionDirectory) const noexcept {
    try {
        flush();
        Common::removeTree(versionDirectory / mappingListName);
    } catch (const std::exception& error) {
        Common::logWarning() << "couldn't remove mapping list: " << error;
    }
}

void Mappings::flush() const { Common::flushFileSystem(systemRoot_); }

} // namespace Core::ZUL
