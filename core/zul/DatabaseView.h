#pragma once

#include "core/zul/DatabaseInspection.h"
#include "core/zul/PackageIdentity.h"
#include "core/zul/ReadTree.h"
#include "core/zul/mapping/Mapping.h"
#include "core/zul/mapping/MappingList.h"

#include <map>
#include <string>
#include <vector>

namespace Core::ZUL {

/// Read access to a database for the functions of DatabaseInspection.h. Used by one thread.
class DatabaseView {
public:
    explicit DatabaseView(const InspectedDatabase& database);

    [[nodiscard]] const std::filesystem::path& directory() const { return directory_; }
    /// The tree with the packages.
    [[nodiscard]] const ReadTree& tree() const { return tree_; }
    /// The tree with their mappings.
    [[nodiscard]] const ReadTree& system() const { return system_; }
    [[nodiscard]] Mapping mappingAt(const std::filesystem::path& place) { return {places_, place}; }

    /// The part of a path below the packages' directory, also for a path that reaches it through a link;
    /// empty for any other path.
    [[nodiscard]] std::filesystem::path belowDirectory(const std::filesystem::path& path) const;

    /// The package in whose directory a path is or would be; empty for any other path.
    [[nodiscard]] std::string packageOf(const std::filesystem::path& path) const;

    /// The names of all packages' directories.
    [[nodiscard]] std::vector<std::string> packages() const;

private:
    std::filesystem::path directory_;
    ReadTree tree_;
    ReadTree system_;
    std::optional<struct stat> status_; ///< of the packages' directory
    SystemTree places_;
};

/// One package of a database that is only read; the counterpart of PackageDirectory.
class InstalledPackage {
public:
    struct File {
        std::filesystem::path relative; ///< to the version directory
        struct stat status;             ///< its own
    };

    InstalledPackage(const DatabaseView& view, const std::string& packageId);

    [[nodiscard]] const std::string& id() const { return id_; }
    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    [[nodiscard]] bool exists() const {
        const auto status = view_.tree().status(path_);
        return status && S_ISDIR(status->st_mode);
    }
    /// Throws PackageNotExist.
    void requireExists() const;

    /// The name of the version that "current" or "next" points to; empty if it does not exist.
    [[nodiscard]] std::string versionOf(const std::string& link) const;
    /// The names of all version directories, also of versions that are neither installed nor prepared.
    [[nodiscard]] std::vector<std::string> versions() const;

    /// Throws as readRecord().
    [[nodiscard]] PackageData record(const std::string& version) const;
    /// The identity for mappingRules(). Throws as record().
    [[nodiscard]] PackageIdentity identity(const std::string& version) const;
    [[nodiscard]] std::optional<MappingList> mappingList(const std::string& version) const;

    /// The files of a version, without directories, record and mapping list.
    [[nodiscard]] std::vector<File> files(const std::string& version) const;
    /// Maps the places of a version's mappings to the files, which are relative.
    [[nodiscard]] std::map<std::string, std::string> plan(const PackageIdentity& identity,
                                                          const std::vector<File>& files) const;
    /// The kind that all mappings of a version have.
    [[nodiscard]] MappingKind kindOf(const PackageIdentity& identity) const;

private:
    const DatabaseView& view_;
    std::string id_;
    std::filesystem::path path_;
};

} // namespace Core::ZUL
