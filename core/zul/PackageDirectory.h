#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace Core::ZUL {

/// One package's directory: the versions in it and the links that say which is installed ("current") and
/// which is prepared ("next"). A plain value. Failures are Error, code Filesystem.
class PackageDirectory {
public:
    explicit PackageDirectory(std::filesystem::path path)
        : path_(std::move(path)) {}

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    /// Whether the path leads to the directory itself and not through a link to one, which is none of ours.
    [[nodiscard]] bool isReal() const;
    /// Throws when the directory is reached through a link: what that leads to belongs to somebody else.
    void requireReal() const;
    [[nodiscard]] std::filesystem::path current() const { return path_ / "current"; }
    [[nodiscard]] std::filesystem::path next() const { return path_ / "next"; }
    [[nodiscard]] bool hasNextLink() const;

    /// The version directory that one of the links leads to, which need not exist; an empty path for what is
    /// no link and for a link to anything but a direct child of this directory.
    [[nodiscard]] std::filesystem::path versionBehind(const std::filesystem::path& link) const;

    /// Whether one of the links leads to a version of this package that exists.
    [[nodiscard]] bool isSound(const std::filesystem::path& link) const;

    /// The last part of the target of one of the links, which names the version.
    [[nodiscard]] std::string versionNameBehind(const std::filesystem::path& link) const;

    /// The version directories that have a mapping list; none in a directory that is reached through a link.
    [[nodiscard]] std::vector<std::filesystem::path> versions() const;

    /// Deletes the link "next" and then the version it leads to. That is kept when it is the installed one,
    /// and when it is no direct child of this directory: then it is none of ours. Nothing is deleted in a
    /// directory that is reached through a link.
    /// @param versionWords, linkWords  begin the warning about a failure of either
    void giveUpNext(const std::string& versionWords, const std::string& linkWords) const;

    /// Deletes every entry but "current" and the version it leads to. Nothing is deleted in a directory that
    /// is reached through a link.
    /// @param words          begin the warning about an entry that could not be deleted, before its path
    /// @param beforeRemoval  called with each entry that will be deleted
    void sweep(const std::string& words,
               const std::function<void(const std::filesystem::path&)>& beforeRemoval = {}) const;

    /// Deletes the directory with all versions. The links go first: from then on the package is gone, however
    /// much of it is left when the process dies.
    void remove() const;

private:
    std::filesystem::path path_;
};

} // namespace Core::ZUL
