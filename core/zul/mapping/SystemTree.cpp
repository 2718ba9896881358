#include "core/zul/mapping/SystemTree.h"

#include "common/Files.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Core::ZUL {

SystemTree::SystemTree(const std::filesystem::path& root, Use use)
    : root_(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))
    , use_(use) {
    if (!root_) {
        throw Common::filesystemError("couldn't open system root " + root.native());
    }
    remember(root_);
}

void SystemTree::remember(const Common::UniqueFd& directory) {
    const auto device = Common::statusOf(directory.get()).st_dev;
    if (!fileSystems_.contains(device)) {
        Common::UniqueFd copy(fcntl(directory.get(), F_DUPFD_CLOEXEC, 0));
        if (!copy) {
            throw Common::filesystemError("couldn't open the system directories");
        }
        fileSystems_.emplace(device, std::move(copy));
    }
}

void SystemTree::flush() const {
    for (const auto& [device, directory] : fileSystems_) {
        const Common::UniqueFd fd(openat(directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!fd || syncfs(fd.get()) != 0) {
            throw Common::filesystemError("couldn't flush the system directories");
        }
    }
}

int SystemTree::open(const std::filesystem::path& directory) {
    // Consecutive places are mostly in one directory.
    if (!last_ || lastPath_.native() != directory.native()) {
        const auto below = directory.relative_path();
        auto opened = Common::openWithin(root_.get(), below.empty() ? "." : below, O_PATH | O_DIRECTORY,
                                         Common::Resolve::InRoot);
        if (opened && use_ == Use::Change) {
            remember(opened);
        }
        last_ = std::move(opened);
        lastPath_ = directory;
        if (last_ && use_ == Use::Change && unlinkat(last_.get(), pendingName, 0) != 0 && errno == EISDIR) {
            unlinkat(last_.get(), pendingName, AT_REMOVEDIR);
        }
    }
    return last_.get();
}

int SystemTree::make(const std::filesystem::path& directory) {
    if (const int fd = open(directory); fd >= 0 || errno != ENOENT || !directory.has_relative_path()) {
        return fd;
    }
    // The directory gets its name after its mode.
    const int parent = make(directory.parent_path());
    if (parent < 0 || !Common::makePublicDirectory(parent, pendingName)) {
        return -1;
    }
    if (renameat2(parent, pendingName, parent, directory.filename().c_str(), RENAME_NOREPLACE) != 0) {
        const int error = errno;
        unlinkat(parent, pendingName, AT_REMOVEDIR);
        if (error != EEXIST) {
            errno = error;
            return -1;
        }
    }
    return open(directory);
}

} // namespace Core::ZUL
