#include "core/zul/mapping/SystemTree.h"

#include "common/Files.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Core::ZUL {

SystemTree::SystemTree(const std::filesystem::path& root, Use use)
    : root_(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))
    , use_(use) {
    if (!root_) {
        throw Common::filesystemError("couldn't open system root " + root.native());
    }
}

int SystemTree::open(const std::filesystem::path& directory) {
    // Neighbours come one after the other.
    if (!last_ || lastPath_.native() != directory.native()) {
        const auto below = directory.relative_path();
        last_ = Common::openWithin(root_.get(), below.empty() ? "." : below, O_PATH | O_DIRECTORY,
                                   Common::Resolve::InRoot);
        lastPath_ = directory;
        if (last_ && use_ == Use::Change) {
            unlinkat(last_.get(), pendingName, 0);
        }
    }
    return last_.get();
}

int SystemTree::make(const std::filesystem::path& directory) {
    if (const int fd = open(directory); fd >= 0 || errno != ENOENT) {
        return fd;
    }
    std::filesystem::path made = "/";
    for (const auto& component : directory.relative_path()) {
        const int parent = open(made);
        if (parent < 0 || (!Common::makePublicDirectory(parent, component) && errno != EEXIST)) {
            return -1;
        }
        made /= component;
    }
    return open(directory);
}

} // namespace Core::ZUL
