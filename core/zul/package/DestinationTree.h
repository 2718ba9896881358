#pragma once

#include "common/UniqueFd.h"

#include <filesystem>
#include <map>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

namespace Core::ZUL {

/// The directory into which a package is unpacked. Entries are created relative to its descriptor, one path
/// component at a time and never through a symbolic link, so no path leads out of it. Paths are relative to
/// the directory. Used by one thread.
///
/// Unless stated otherwise functions throw std::filesystem::filesystem_error, and Common::Error, code
/// BadPackage, for a path that leads out of the directory or through a symbolic link, or that was already
/// created.
class DestinationTree {
public:
    /// Creates the directory, with missing parents, if it does not exist.
    explicit DestinationTree(std::filesystem::path root);

    /// Creates a directory unless it exists, and sets its permissions. Permissions that deny the owner access
    /// are set by finish().
    void makeDirectory(const std::filesystem::path& path, mode_t permissions);

    /// Creates an empty file with missing parents and opens it for writing; only its owner has access. A file
    /// or link that existed before this object is replaced. Throws Common::Error, code Filesystem, "couldn't
    /// open file for writing rpm content: " and the file, when only the file itself cannot be created.
    [[nodiscard]] Common::UniqueFd makeFile(const std::filesystem::path& path);

    /// Creates a symbolic link with missing parents. Throws BadPackage for any other target.
    /// @param target  relative, with ".." only at its beginning, and not leading out of the directory
    void makeSymbolicLink(const std::filesystem::path& path, const std::filesystem::path& target);

    /// Creates a hard link to a file that makeFile() created, with missing parents.
    void makeHardLink(const std::filesystem::path& path, const std::filesystem::path& existing);

    /// Sets the postponed permissions of directories.
    void finish();

    /// A path below the directory, for messages.
    [[nodiscard]] std::filesystem::path nameOf(const std::filesystem::path& path) const {
        return root_ / path;
    }

private:
    enum class Made { Directory, File, Link };

    /// A path split into components.
    struct Place {
        std::vector<std::string> parents;
        std::string name; ///< the last component; empty for the directory itself
        std::string key;  ///< the normalized path, a key of made_
    };

    struct OpenDirectory {
        std::string name;
        Common::UniqueFd descriptor;
    };

    [[nodiscard]] static Place placeOf(const std::filesystem::path& path);
    [[nodiscard]] int current() const;
    int enter(const std::vector<std::string>& directories);
    int enterItself(const Place& place);
    void descend(const std::string& name);
    void requireNew(const Place& place) const;
    static void requireInside(const Place& link, const std::filesystem::path& target);
    [[nodiscard]] std::string openPath() const;
    [[noreturn]] void fail(const char* message, const std::string& path) const;
    [[noreturn]] static void refuse(const char* message, const std::string& path);

    std::filesystem::path root_;
    Common::UniqueFd rootDescriptor_;
    std::vector<OpenDirectory> open_;            ///< the directories down to the one last entered
    std::unordered_map<std::string, Made> made_; ///< by Place::key
    std::map<std::string, mode_t> waiting_;      ///< permissions for finish(), by key: parents first
};

} // namespace Core::ZUL
