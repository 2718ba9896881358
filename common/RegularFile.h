#pragma once

#include "common/UniqueFd.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <system_error>

namespace Common {

/// An open regular file and its size at that moment, in bytes.
struct RegularFile {
    UniqueFd descriptor;
    std::uint64_t size = 0;
};

/// Opens a regular file for reading; follows symbolic links. It is the descriptor that is checked, and a FIFO
/// is not waited for, so nobody can stop the caller by what he puts at the path. Any thread.
/// Throws std::system_error whose text begins with the path.
[[nodiscard]] inline RegularFile openRegularFile(const std::filesystem::path& path) {
    const auto refuse = [&path](int code) {
        return std::system_error(code, std::generic_category(), path.string());
    };
    if (path.native().find('\0') != std::string::npos) {
        throw refuse(EINVAL);
    }
    UniqueFd descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!descriptor || fstat(descriptor.get(), &status) != 0) {
        throw refuse(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        throw refuse(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    }
    return {std::move(descriptor), static_cast<std::uint64_t>(status.st_size)};
}

/// Reads bytes from a place in a file, without moving its position. Any thread.
/// @return what there is, fewer than size bytes only at the file's end
/// Throws std::system_error.
inline std::size_t readAt(int descriptor, char* bytes, std::size_t size, std::uint64_t offset) {
    std::size_t have = 0;
    while (have < size) {
        const auto count = pread(descriptor, bytes + have, size - have, static_cast<off_t>(offset + have));
        if (count == 0) {
            break;
        }
        if (count > 0) {
            have += static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "couldn't read");
        }
    }
    return have;
}

/// The content of a regular file.
/// @param limit  bytes that it may have at most
/// Throws std::system_error whose text begins with the path; EFBIG for a larger file.
[[nodiscard]] inline std::string readRegularFile(const std::filesystem::path& path, std::size_t limit) {
    const auto file = openRegularFile(path);
    if (file.size > limit) {
        throw std::system_error(EFBIG, std::generic_category(), path.string());
    }
    std::string content(static_cast<std::size_t>(file.size), '\0');
    content.resize(readAt(file.descriptor.get(), content.data(), content.size(), 0));
    return content;
}

} // namespace Common
