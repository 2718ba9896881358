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

/// An installed database as the functions of DatabaseInspection.h see it. Used by one thread.
class DatabaseView {
public:
    explicit DatabaseView(const InspectedDatabase& database);

    [[nodiscard]] const std::filesystem::path& directory() const { return directory_; }
    /// Where the packages are.
    [[nodiscard]] const ReadTree& tree() const { return tree_; }
    /// Where their mappings are.
    [[nodiscard]] const ReadTree& system() const { return system_; }
    [[nodiscard]] Mapping mappingAt(const std::filesystem::path& place) { return {places_, place}; }

    /// The part of a path below the packages' directory, also when the path names that by way of a link;
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

/// One package of a database that is looked at: what PackageDirectory knows of one that is worked on.
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

    /// The name of the version that "current" or "next" leads to; empty when it leads to none that exists.
    [[nodiscard]] std::string versionOf(const std::string& link) const;
    /// The names of all directories of versions, also of those that are neither installed nor prepared.
    [[nodiscard]] std::vector<std::string> versions() const;

    /// Throws as readRecord().
    [[nodiscard]] PackageData record(const std::string& version) const;
    /// The identity that the rules for mappings take. Throws as record().
    [[nodiscard]] PackageIdentity identity(const std::string& version) const;
    [[nodiscard]] std::optional<MappingList> mappingList(const std::string& version) const;

    /// What is in a version, without directories, record and mapping list.
    [[nodiscard]] std::vector<File> files(const std::string& version) const;
    /// The places of files of a version, and the files, which are relative.
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
