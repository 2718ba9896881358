#include "core/zul/mapping/FileCopy.h"

#include "common/Files.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/limits.h>
#include <linux/xattr.h>
#include <string>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace Core::ZUL {

namespace {

using Common::filesystemError;

void copyContent(int from, int to, off_t size) {
    while (size > 0) {
        auto count = copy_file_range(from, nullptr, to, nullptr, static_cast<std::size_t>(size), 0);
        if (count < 0 && (errno == EXDEV || errno == EINVAL || errno == EOPNOTSUPP || errno == ENOSYS)) {
            // Not supported between these file systems.
            count = sendfile(to, from, nullptr, static_cast<std::size_t>(size));
        }
        if (count <= 0) {
            throw filesystemError("couldn't copy content");
        }
        size -= count;
    }
}

/// The names, each ended by a zero byte.
std::string attributeNames(int fd) {
    std::string names(static_cast<std::size_t>(XATTR_LIST_MAX), '\0');
    const auto size = flistxattr(fd, names.data(), names.size());
    if (size < 0 && errno != ENOTSUP) {
        throw filesystemError("couldn't list extended attributes");
    }
    names.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return names;
}

void copyAttributes(int from, int to) {
    std::vector<char> value(XATTR_SIZE_MAX);
    const auto names = attributeNames(from);
    for (std::size_t start = 0; start < names.size(); start = names.find('\0', start) + 1) {
        const char* name = names.data() + start;
        if (std::strcmp(name, XATTR_NAME_EVM) == 0) {
            continue; // the kernel computes it for each inode
        }
        const auto size = fgetxattr(from, name, value.data(), value.size());
        if (size < 0 || fsetxattr(to, name, value.data(), static_cast<std::size_t>(size), 0) != 0) {
            throw filesystemError(std::string("couldn't copy extended attribute ") + name);
        }
    }
}

} // namespace

void copyFile(int from, int to, const std::map<std::string, std::string>& more) {
    const auto status = Common::statusOf(from);
    copyContent(from, to, status.st_size);
    // In this order: writing and chown() clear mode bits and capabilities; the mode may forbid setting
    // attributes.
    if (fchown(to, status.st_uid, status.st_gid) != 0) {
        throw filesystemError("couldn't set owner");
    }
    copyAttributes(from, to);
    for (const auto& [name, value] : more) {
        if (fsetxattr(to, name.c_str(), value.data(), value.size(), 0) != 0) {
            throw filesystemError("couldn't attach extended attribute " + name);
        }
    }
    if (fchmod(to, status.st_mode & 07777) != 0) {
        throw filesystemError("couldn't set mode");
    }
    const std::array times{status.st_atim, status.st_mtim};
    if (futimens(to, times.data()) != 0) {
        throw filesystemError("couldn't set times");
    }
}

bool isCopyOf(const struct stat& copy, const struct stat& file) noexcept {
    return copy.st_size == file.st_size && copy.st_mode == file.st_mode && copy.st_uid == file.st_uid &&
           copy.st_gid == file.st_gid && copy.st_mtim.tv_sec == file.st_mtim.tv_sec &&
           copy.st_mtim.tv_nsec == file.st_mtim.tv_nsec;
}

} // namespace Core::ZUL
