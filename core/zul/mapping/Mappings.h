#pragma once

#include "core/zul/PackageIdentity.h"
#include "core/zul/mapping/MappingList.h"

#include <filesystem>

namespace Core::ZUL {

struct MappingPlan;

/// The mappings of whole packages: makes a version's files visible in the system directories and takes them
/// away again. What a version is about to have there is in its mapping list on disk before the first is made,
/// so that an interrupted operation leaves nothing that could not be found again. What was made or removed is
/// on disk when a call returns.
///
/// A mapping belongs to the package whose directory has the file that it stands for. A list alone never
/// removes another package's mapping; a new mapping replaces it. Used by one thread at a time. Failures are
/// Common::Error.
class Mappings {
public:
    /// @param systemRoot  the directory that stands for "/" in every mapping's path
    explicit Mappings(std::filesystem::path systemRoot)
        : systemRoot_(std::move(systemRoot)) {}

    /// Plans the mappings of a version, also one that is not in the database yet, and writes their list. The
    /// caller flushes it. Throws as planMappings() of a new one.
    static MappingPlan prepare(const PackageIdentity& package, const std::filesystem::path& versionDirectory);

    /// Makes the mappings of a version as planned, replaces those of other packages, and removes the
    /// package's that are in the list and no longer wanted. A list that cannot be shortened then stays as it
    /// is. Throws Filesystem "couldn't create mappings"
    /// after removing what it made, and the list if it names nothing else, with the cause in the log.
    /// @param versionDirectory  as it will stand in the mappings; in practice root / ID / "current"
    void createMappings(const MappingPlan& plan, const std::filesystem::path& versionDirectory) const;

    /// The same for what is missing or outdated, but leaves what belongs to others and goes on after a
    /// failure. Throws Filesystem when some could not be made.
    void refreshMappings(const MappingPlan& plan, const std::filesystem::path& versionDirectory) const;

    /// Removes the mappings in a version's list that are still the package's. Failures are logged.
    /// @param areStale  whether it is expected that others have their places, which is logged else
    /// @return whether all are removed; nothing when there is no list
    [[nodiscard]] std::optional<bool> removeMappings(const std::filesystem::path& versionDirectory,
                                                     bool areStale = false) const;

private:
    class Work;

    std::filesystem::path systemRoot_;
};

} // namespace Core::ZUL
