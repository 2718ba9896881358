#include "core/zul/mapping/Mappings.h"

#include "common/Files.h"
#include "common/Guard.h"
#include "common/LogLine.h"
#include "core/zul/mapping/Mapping.h"
#include "core/zul/mapping/MappingPlan.h"

#include <algorithm>
#include <iterator>
#include <set>

namespace Core::ZUL {

using Common::Error;
using Common::ErrorCode;
using Common::quoted;

/// One operation on the mappings of a version.
class Mappings::Work {
public:
    Work(const std::filesystem::path& systemRoot, const std::filesystem::path& versionDirectory)
        : version_(versionDirectory)
        , package_(versionDirectory.parent_path())
        , tree_(systemRoot) {}

    /// @param isStrict  a failure ends and undoes the call; otherwise it continues and keeps files of others
    void make(const MappingPlan& plan, bool isStrict) {
        const auto targets = plan.targets();
        const std::set<std::string> wanted(targets.begin(), targets.end());
        auto stale = readMappingList(version_).value_or(MappingList());
        const auto possible = mergedMappingList(targets, stale);
        writeMappingList(version_, possible, Common::Durability::Now);
        std::erase_if(stale, [&](const auto& target) { return wanted.contains(target); });

        // Stale mappings that would be a parent or a child of a new place are removed first, the others after
        // all new ones are created.
        const auto middle = std::stable_partition(stale.begin(), stale.end(), [&](const auto& target) {
            const auto next = wanted.lower_bound(target + "/");
            return (next != wanted.end() && next->starts_with(target + "/")) ||
                   placeAbove(target, wanted).has_relative_path();
        });
        auto left = remove({stale.begin(), middle}, /*areStale=*/true);
        std::for_each(stale.begin(), middle,
                      [&](const auto& target) { removeDirectories(target, placeAbove(target, wanted)); });
        const bool isComplete = makeEach(plan, isStrict);
        if (isStrict && !isComplete) {
            undo();
            removeListOf(stale, plan);
        } else {
            left = mergedMappingList(std::move(left), remove({middle, stale.end()}, /*areStale=*/true));
            // A mapping restored by a power loss would be on no list.
            tree_.flush();
            if (const auto kept = mergedMappingList(targets, left); kept != possible) {
                // On a full disk the longer list stays; it includes all existing mappings.
                Common::guarded("couldn't shorten the mapping list",
                                [&] { writeMappingList(version_, kept, Common::Durability::Now); });
            }
        }
        if (!isComplete) {
            throw Error(ErrorCode::Filesystem, "couldn't create mappings");
        }
    }

    void flush() const { tree_.flush(); }

    /// Removes the package's mappings among the targets.
    /// @param areStale  whether the package no longer has them, so that others may use the places
    /// @return the targets that could not be removed
    MappingList remove(const MappingList& targets, bool areStale) {
        MappingList left;
        for (const auto& target : targets) {
            if (!Mapping::isPlace(target)) {
                Common::logWarning() << "no place for a mapping: " << Common::quoted(target);
                continue;
            }
            try {
                const Mapping mapping(tree_, target);
                if (mapping.belongsTo(package_)) {
                    mapping.remove();
                } else if (!areStale) {
                    Common::logWarning() << "skip removing the generated package symlink, since it was most "
                                            "likely overwritten via rpm: "
                                         << Common::quoted(target);
                }
            } catch (const Error& error) {
                Common::logWarning() << "couldn't remove the generated package mapping: "
                                     << Common::quoted(target) << error;
                left.push_back(target);
            }
        }
        return left;
    }

private:
    /// The nearest place that is a parent directory of the target; "/" or empty if there is none.
    static std::filesystem::path placeAbove(const std::filesystem::path& target,
                                            const std::set<std::string>& places) {
        auto above = target.parent_path();
        while (above.has_relative_path() && !places.contains(above)) {
            above = above.parent_path();
        }
        return above;
    }

    /// Deletes the empty directories from the target's parent up to a place.
    void removeDirectories(const std::filesystem::path& target, const std::filesystem::path& place) {
        for (auto directory = target.parent_path();
             place.has_relative_path() && directory.native().size() >= place.native().size() &&
             Mapping::isPlace(directory);
             directory = directory.parent_path()) {
            Mapping(tree_, directory).removeDirectory();
        }
    }

    bool makeEach(const MappingPlan& plan, bool isStrict) {
        bool isComplete = true;
        for (const auto& entry : plan.entries) {
            const MappedFile file{version_, entry.file};
            try {
                makeOne(Mapping(tree_, entry.target), file, plan.kind, isStrict);
            } catch (const Error& error) {
                Common::logError() << "couldn't create mapping " << quoted(file.path()) << " -> "
                                   << quoted(entry.target) << error;
                if (isStrict) {
                    return false;
                }
                isComplete = false;
            }
        }
        return isComplete;
    }

    void makeOne(Mapping mapping, const MappedFile& file, MappingKind kind, bool isStrict) {
        const bool isThere = mapping.exists();
        const bool isOurs = isThere && mapping.belongsTo(package_);
        if (isOurs && mapping.standsFor(file, kind)) {
            return;
        }
        if (isStrict && isThere && !isOurs && !mapping.isReplaceable(package_.parent_path())) {
            throw Error(ErrorCode::Filesystem,
                        "attempt to override system file with package mapping: " + mapping.target().native());
        }
        if (!isStrict && isThere && !isOurs) {
            Common::logWarning() << "leaving what is in the place of a mapping: " << quoted(mapping.target());
            return;
        }
        mapping.createMapping(file, kind);
        if (!isOurs) {
            created_.push_back(std::move(mapping));
        }
    }

    /// Removes the created mappings in places that were not the package's before.
    void undo() {
        Common::logInfo() << "cleaning up created mappings";
        for (const auto& mapping : created_) {
            try {
                mapping.remove();
            } catch (const Error& error) {
                Common::logWarning() << "couldn't clean up created mapping: " << quoted(mapping.target())
                                     << error;
            }
        }
    }

    /// After undo(): deletes the list unless a place that it names has, or may have, the package's mapping.
    void removeListOf(const MappingList& stale, const MappingPlan& plan) {
        try {
            // The removal must be on disk before the list is deleted.
            tree_.flush();
            const bool isAnyLeft =
                !stale.empty() ||
                std::any_of(plan.entries.begin(), plan.entries.end(), [&](const auto& entry) {
                    return Mapping(tree_, entry.target).belongsTo(package_);
                });
            if (!isAnyLeft) {
                Common::removeTree(version_ / mappingListName);
            }
        } catch (const Error& error) {
            Common::logWarning() << "couldn't remove mapping list: " << error;
        }
    }

    const std::filesystem::path version_;
    const std::filesystem::path package_;
    SystemTree tree_;
    std::vector<Mapping> created_;
};

MappingPlan Mappings::prepare(const PackageIdentity& package, const std::filesystem::path& versionDirectory) {
    auto plan = planMappings(package, versionDirectory, /*isNew=*/true);
    writeMappingList(versionDirectory, plan.targets(), Common::Durability::Later);
    return plan;
}

void Mappings::createMappings(const MappingPlan& plan, const std::filesystem::path& versionDirectory) const {
    Work(systemRoot_, versionDirectory).make(plan, /*isStrict=*/true);
}

void Mappings::refreshMappings(const MappingPlan& plan, const std::filesystem::path& versionDirectory) const {
    Work(systemRoot_, versionDirectory).make(plan, /*isStrict=*/false);
}

std::optional<bool> Mappings::removeMappings(const std::filesystem::path& versionDirectory,
                                             bool areStale) const {
    const auto list = readMappingList(versionDirectory);
    if (!list) {
        return std::nullopt;
    }
    Work work(systemRoot_, versionDirectory);
    const bool areRemoved = work.remove(*list, areStale).empty();
    work.flush();
    return areRemoved;
}

} // namespace Core::ZUL
