#pragma once

#include "core/zul/PackageIdentity.h"
#include "core/zul/mapping/MappingList.h"

#include <filesystem>

namespace Core::ZUL {

struct MappingPlan;

/// Creates and removes the mappings of a version in the system directories. The mapping list is on disk
/// before the first mapping is created, so that all mappings of an interrupted operation can be found. All
/// changes are on disk when a call returns.
///
/// A mapping belongs to the package whose directory has the mapped file. A new mapping replaces another
/// package's mapping of the same place; an entry in a mapping list never removes one. Used by one thread at a
/// time. Failures are Common::Error.
class Mappings {
public:
    /// @param systemRoot  the directory that takes the place of "/" in the paths of mappings
    explicit Mappings(std::filesystem::path systemRoot)
        : systemRoot_(std::move(systemRoot)) {}

    /// Plans the mappings of a version, which need not be in the database yet, and writes their list. The
    /// caller flushes it. Throws as planMappings() with isNew.
    static MappingPlan prepare(const PackageIdentity& package, const std::filesystem::path& versionDirectory);

    /// Creates the planned mappings of a version, replacing those of other packages, and removes the
    /// package's mappings that are in the list and not in the plan. If the list cannot be shortened then, it
    /// stays unchanged. On failure removes the created mappings, and the list if it has no others, logs the
    /// cause and throws Filesystem "couldn't create mappings".
    /// @param versionDirectory  its path in the targets of mappings; in practice root / ID / "current"
    void createMappings(const MappingPlan& plan, const std::filesystem::path& versionDirectory) const;

    /// Creates missing and outdated mappings, keeps those of other packages and continues after a failure.
    /// Throws Filesystem when a mapping could not be created.
    void refreshMappings(const MappingPlan& plan, const std::filesystem::path& versionDirectory) const;

    /// Removes the mappings in a version's list that are still the package's. Failures are logged.
    /// @param areStale  whether other packages may have taken these places; if false, that is logged
    /// @return whether all are removed; nothing if there is no list
    [[nodiscard]] std::optional<bool> removeMappings(const std::filesystem::path& versionDirectory,
                                                     bool areStale = false) const;

private:
    class Work;

    std::filesystem::path systemRoot_;
};

} // namespace Core::ZUL
