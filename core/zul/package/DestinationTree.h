#pragma once

#include "common/UniqueFd.h"

#include <filesystem>
#include <map>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

namespace Core::ZUL {

/// The directory into which a package is unpacked. Everything is made relative to its descriptor, one path
/// component at a time and never through a symbolic link, so no path reaches anything
/// outside. Paths are relative to the directory. Used by one thread.
///
/// Unless stated otherwise functions throw std::filesystem::filesystem_error, and Common::Error, code
/// BadPackage, for a path that would leave the directory, leads through a symbolic link or names what was
/// already made.
class DestinationTree {
public:
    /// Makes the directory, with missing parents, if it does not exist.
    explicit DestinationTree(std::filesystem::path root);

    /// Makes a directory, or takes it if it exists, and sets its permissions. Those that would keep its owner
    /// from filling it take effect with finish().
    void makeDirectory(const std::filesystem::path& path, mode_t permissions);

    /// Makes an empty file, open for writing and closed to others, in place of any file or link that was
    /// there before this object. Missing parents are made. Throws Common::Error, code Filesystem, "couldn't
    /// open file for writing rpm content: " and the file, when only the file itself cannot be made.
    [[nodiscard]] Common::UniqueFd makeFile(const std::filesystem::path& path);

    /// Makes a symbolic link with missing parents. Throws BadPackage for any other target.
    /// @param target  relative, with ".." only at its beginning, and not leading out of the directory
    void makeSymbolicLink(const std::filesystem::path& path, const std::filesystem::path& target);

    /// Makes a further name for a file that makeFile() made, with missing parents.
    void makeHardLink(const std::filesystem::path& path, const std::filesystem::path& existing);

    /// Sets the permissions that had to wait.
    void finish();

    /// A path below the directory as messages name it.
    [[nodiscard]] std::filesystem::path nameOf(const std::filesystem::path& path) const {
        return root_ / path;
    }

private:
    enum class Made { Directory, File, Link };

    /// A path taken apart.
    struct Place {
        std::vector<std::string> parents;
        std::string name; ///< the last component; empty for the directory itself
        std::string key;  ///< all of it in the one form that made_ knows
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
    [[noreturn]] void fail(const char* words, const std::string& path) const;
    [[noreturn]] static void refuse(const char* words, const std::string& path);

    std::filesystem::path root_;
    Common::UniqueFd rootDescriptor_;
    std::vector<OpenDirectory> open_;            ///< the directories down to the one last entered
    std::unordered_map<std::string, Made> made_; ///< by a place's key
    std::map<std::string, mode_t> waiting_;      ///< permissions for finish(), by key: outer before inner
};

} // namespace Core::ZUL
