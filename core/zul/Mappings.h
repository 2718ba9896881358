#pragma once

#include "core/zul/MappingList.h"
#include "core/zul/Package.h"

#include <filesystem>

namespace Core::ZUL {

/// The mappings of whole packages: makes a version's files visible in the system directories and takes them
/// away again. What a version is about to have there is in its mapping list on disk before the first is made,
/// so that an interrupted operation leaves nothing that could not be found again.
///
/// A mapping belongs to the package in whose directory the file lies that it stands for; those of others are
/// never removed on the word of a list, only replaced where a new mapping takes their place.
/// Used by one thread at a time. Failures are Common::Error.
class Mappings {
public:
    /// @param systemRoot  the directory that stands for "/" in every mapping's path
    explicit Mappings(std::filesystem::path systemRoot)
        : systemRoot_(std::move(systemRoot)) {}

    /// Writes the list that createMappings() of this version will want, wherever the version lies now. The
    /// caller flushes it.
    static void writeList(const Package& package, const std::filesystem::path& versionDirectory);

    /// Adds another version's list to this one's, for refreshMappings() to look at. It is on disk when this
    /// returns. Logs failures.
    static void keepListOf(const std::filesystem::path& otherVersion,
                           const std::filesystem::path& versionDirectory) noexcept;

    /// Makes the mappings of a version and writes its list. Throws Filesystem "couldn't create mappings"
    /// after removing what it made, and the list if all went, with the cause in the log; BadPackage for names
    /// that cannot be mapped.
    /// @param versionDirectory  as it will stand in the mappings; in practice root / ID / "current"
    /// @param left              what else the list is to name: the package's, and still to be removed
    void createMappings(const Package& package, const std::filesystem::path& versionDirectory,
                        const MappingList& left = {}) const;

    /// Removes the mappings in a version's list, as far as they are still the package's. Throws Filesystem
    /// when there is no list; other failures are logged.
    /// @return the targets at which removal failed
    [[nodiscard]] MappingList removeMappings(const std::filesystem::path& versionDirectory) const;

    /// Makes what is missing or outdated, removes the package's mappings that are in the list and no longer
    /// wanted, leaves what belongs to others. Throws Filesystem when some could not be made.
    void refreshMappings(const Package& package, const std::filesystem::path& versionDirectory) const;

    /// Waits until the system directories are on disk.
    void flush() const;

private:
    void removeList(const std::filesystem::path& versionDirectory) const noexcept;

    std::filesystem::path systemRoot_;
};

} // namespace Core::ZUL
