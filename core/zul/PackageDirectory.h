#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace Core::ZUL {

/// One package's directory: the versions in it and the links that say which is installed ("current") and
/// which is prepared ("next"). A plain value. Failures are Error, code Filesystem: also when a link or a
/// directory could not be read this time. Nothing is deleted before it is known what stays.
class PackageDirectory {
public:
    explicit PackageDirectory(std::filesystem::path path)
        : path_(std::move(path)) {}

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    /// Whether the path leads to the directory itself and not through a link to one, which is not ours.
    [[nodiscard]] bool isReal() const;
    /// Throws when the directory is reached through a link: its target is not ours.
    void requireNotSymlink() const;
    [[nodiscard]] std::filesystem::path current() const { return path_ / "current"; }
    [[nodiscard]] std::filesystem::path next() const { return path_ / "next"; }
    /// Where "current" is kept during the completion of an upgrade, so that going back needs no disk space.
    [[nodiscard]] std::filesystem::path fallback() const { return path_ / ".current.old"; }
    [[nodiscard]] bool hasNextLink() const;

    /// The version directory that one of the links leads to, which need not exist; an empty path for what is
    /// not a link and for a link to anything but a direct child of this directory.
    [[nodiscard]] std::filesystem::path versionOf(const std::filesystem::path& link) const;

    /// Whether one of the links leads to a version of this package that exists.
    [[nodiscard]] bool pointsToExistingVersion(const std::filesystem::path& link) const;

    /// Whether there is a version in this directory that neither link leads to.
    [[nodiscard]] bool isAbandoned(const std::filesystem::path& version) const;

    /// The last part of the target of one of the links, which names the version.
    [[nodiscard]] static std::string versionNameOf(const std::filesystem::path& link);

    /// The directories whose mapping lists name what the package has in the system directories: "current" if
    /// it leads to something, then every other version that has a list. No versions in a directory that is
    /// reached through a link.
    [[nodiscard]] std::vector<std::filesystem::path> listHolders() const;

    /// Deletes the link "next" and then the version it leads to, whose mapping list is added to that of the
    /// installed one. The version is kept when it is the installed one, when it has a list and no version is
    /// installed, and when it is not a direct child of this directory: then it is not ours. Nothing is
    /// deleted in a directory that is reached through a link.
    /// @param versionWords, linkWords  begin the warning about a failure of either
    void
    discardPreparedUpgrade(const std::string& versionWords = "couldn't cleanup corrupted package version: ",
                           const std::string& linkWords = "couldn't cleanup corrupted next symlink: ") const;

    /// Deletes every entry but "current" and the version it leads to. Nothing is deleted in a directory that
    /// is reached through a link, nor when "current" leads to no version.
    /// @param words          begin the warning about an entry that could not be deleted, before its path
    /// @param beforeRemoval  called with each entry that will be deleted; when it throws the entry stays
    void sweep(const std::string& words,
               const std::function<void(const std::filesystem::path&)>& beforeRemoval = {}) const;

    /// Deletes the links: from then on the package is gone, however much of it is left. On disk when it
    /// returns. Does nothing in a directory that is reached through a link.
    void removeLinks() const;

    /// Deletes the directory with all versions, the links first.
    void remove() const;

private:
    std::filesystem::path path_;
};

} // namespace Core::ZUL
