#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace Core::ZUL {

/// One package's directory: its versions and the links to the installed ("current") and the prepared ("next")
/// version. A plain value. Failures are Error, code Filesystem, also for a link or a directory that cannot be
/// read. Functions that delete first determine what to keep, so a read failure deletes nothing.
class PackageDirectory {
public:
    explicit PackageDirectory(std::filesystem::path path)
        : path_(std::move(path)) {}

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    /// Whether the path is the directory itself and not a link to one, which is not the database's.
    [[nodiscard]] bool isReal() const;
    /// Throws when the path is a link: its target is not the database's.
    void requireNotSymlink() const;
    [[nodiscard]] std::filesystem::path current() const { return path_ / "current"; }
    [[nodiscard]] std::filesystem::path next() const { return path_ / "next"; }
    /// Second name of "current" while an upgrade is completed, so that a rollback needs no disk space.
    [[nodiscard]] std::filesystem::path fallback() const { return path_ / ".current.old"; }
    [[nodiscard]] bool hasNextLink() const;

    /// The version directory that a link points to, which need not exist; an empty path if it is not a link
    /// or points to anything but a direct child of this directory.
    [[nodiscard]] std::filesystem::path versionOf(const std::filesystem::path& link) const;

    /// Whether a link points to an existing version of this package.
    [[nodiscard]] bool pointsToExistingVersion(const std::filesystem::path& link) const;

    /// Whether this is a version in this directory that neither link points to.
    [[nodiscard]] bool isAbandoned(const std::filesystem::path& version) const;

    /// The last component of a link's target, which is the version.
    [[nodiscard]] static std::string versionNameOf(const std::filesystem::path& link);

    /// The directories whose mapping lists together have all mappings of the package: "current" if it points
    /// to something, then every other version with a list. No versions if this directory is a link.
    [[nodiscard]] std::vector<std::filesystem::path> listHolders() const;

    /// Deletes the link "next" and then the version that it points to, whose mapping list is added to that of
    /// the installed version. The version is kept if it is the installed one, if it has a list and no version
    /// is installed, and if it is not a direct child of this directory. Deletes nothing if this directory is
    /// a link.
    /// @param versionWords, linkWords  beginnings of the warnings about a failure to delete either
    void
    discardPreparedUpgrade(const std::string& versionWords = "couldn't cleanup corrupted package version: ",
                           const std::string& linkWords = "couldn't cleanup corrupted next symlink: ") const;

    /// Deletes every entry except "current" and the version that it points to. Deletes nothing if this
    /// directory is a link, or if "current" points to no version.
    /// @param message        beginning of the warning about an entry that could not be deleted
    /// @param beforeRemoval  called with each entry to be deleted; if it throws, the entry is kept
    void sweep(const std::string& message,
               const std::function<void(const std::filesystem::path&)>& beforeRemoval = {}) const;

    /// Deletes the links. The package then counts as removed, even if files are left. Flushed to disk on
    /// return. Does nothing if this directory is a link.
    void removeLinks() const;

    /// Deletes the links, then the directory with all versions.
    void remove() const;

private:
    std::filesystem::path path_;
};

} // namespace Core::ZUL
