#include "core/zul/FileCopy.h"

#include "common/Files.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <linux/limits.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace Core::ZUL {

namespace {

using Common::filesystemError;

constexpr std::size_t pieceSize = 256UL * 1024UL;

struct stat statusOf(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        throw filesystemError("couldn't look at file");
    }
    return status;
}

std::string_view readPiece(int fd, off_t offset, std::vector<char>& buffer) {
    const auto count = pread(fd, buffer.data(), buffer.size(), offset);
    if (count < 0) {
        throw filesystemError("couldn't read file");
    }
    return {buffer.data(), static_cast<std::size_t>(count)};
}

void copyContent(int from, int to) {
    std::vector<char> buffer(pieceSize);
    off_t offset = 0;
    for (auto piece = readPiece(from, 0, buffer); !piece.empty(); piece = readPiece(from, offset, buffer)) {
        while (!piece.empty()) {
            const auto count = pwrite(to, piece.data(), piece.size(), offset);
            if (count < 0) {
                throw filesystemError("couldn't write file");
            }
            piece.remove_prefix(static_cast<std::size_t>(count));
            offset += count;
        }
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
        const auto size = fgetxattr(from, name, value.data(), value.size());
        if (size < 0 || fsetxattr(to, name, value.data(), static_cast<std::size_t>(size), 0) != 0) {
            throw filesystemError(std::string("couldn't copy extended attribute ") + name);
        }
    }
}

} // namespace

void copyFile(int from, int to) {
    const auto status = statusOf(from);
    copyContent(from, to);
    // In this order: writing and changing the owner take mode bits and capabilities away, the mode may forbid
    // attributes.
    if (fchown(to, status.st_uid, status.st_gid) != 0) {
        throw filesystemError("couldn't set owner");
    }
    copyAttributes(from, to);
    if (fchmod(to, status.st_mode & 07777) != 0) {
        throw filesystemError("couldn't set mode");
    }
    const std::array times{status.st_atim, status.st_mtim};
    if (futimens(to, times.data()) != 0) {
        throw filesystemError("couldn't set times");
    }
}

bool isSameFile(int first, int second) {
    const auto one = statusOf(first);
    const auto other = statusOf(second);
    if (one.st_size != other.st_size || one.st_mode != other.st_mode || one.st_uid != other.st_uid ||
        one.st_gid != other.st_gid || one.st_mtim.tv_sec != other.st_mtim.tv_sec ||
        one.st_mtim.tv_nsec != other.st_mtim.tv_nsec) {
        return false;
    }
    std::vector<char> firstBuffer(pieceSize);
    std::vector<char> secondBuffer(pieceSize);
    for (off_t offset = 0; offset < one.st_size;) {
        const auto piece = readPiece(first, offset, firstBuffer);
        if (piece.empty() || piece != readPiece(second, offset, secondBuffer)) {
            return false;
        }
        offset += static_cast<off_t>(piece.size());
    }
    return true;
}

} // namespace Core::ZUL
