#pragma once

#include "common/UniqueFd.h"

#include <filesystem>
#include <map>
#include <sys/types.h>

namespace Core::ZUL {

/// The system directories, below the directory that stands for "/". Links in them are followed as the
/// running system would follow them, and lead nowhere else. Made for one operation and used by one thread.
class SystemTree {
public:
    /// Where a file or directory is made, beside its place: there is one at a time. What an interrupted
    /// process left under this name is deleted in each directory that is opened.
    static constexpr const char* pendingName = ".zul-mapping";

    enum class Use { Change, Look }; ///< whether interrupted work is cleaned up

    /// Throws Error, code Filesystem, when the root cannot be opened.
    explicit SystemTree(const std::filesystem::path& root, Use use = Use::Change);

    /// A descriptor of a directory, for the *at calls; good until the next call.
    /// @param directory  absolute path, as the running system sees it
    /// @return -1 with errno set when there is no such directory
    int open(const std::filesystem::path& directory);

    /// The same, making what is missing.
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
