#pragma once

#include "common/UniqueFd.h"

#include <filesystem>
#include <map>
#include <sys/types.h>

namespace Core::ZUL {

/// The system directories, below the directory that takes the place of "/". Links are resolved within it, as
/// after chroot(2). Made for one operation and used by one thread.
class SystemTree {
public:
    /// Temporary name of a file or directory beside its place, used for one at a time. An entry of this name,
    /// left by an interrupted process, is deleted in each directory that is opened.
    static constexpr const char* pendingName = ".zul-mapping";

    enum class Use { Change, Look }; ///< only Change deletes such entries

    /// Throws Error, code Filesystem, when the root cannot be opened.
    explicit SystemTree(const std::filesystem::path& root, Use use = Use::Change);

    /// A descriptor of a directory, for the *at calls; valid until the next call.
    /// @param directory  absolute path of the running system
    /// @return -1 with errno set if the directory does not exist or cannot be opened
    int open(const std::filesystem::path& directory);

    /// The same, creating missing directories.
    int make(const std::filesystem::path& directory);

    /// Waits until what was changed is on disk: on the root's file system and on each that a directory was
    /// opened on.
    void flush() const;

private:
    void remember(const Common::UniqueFd& directory);

    Common::UniqueFd root_;
    Use use_;
    std::filesystem::path lastPath_;
    Common::UniqueFd last_;
    std::map<dev_t, Common::UniqueFd> fileSystems_; ///< a directory on each, to flush it
};

} // namespace Core::ZUL
