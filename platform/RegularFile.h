#pragma once

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Platform {

/// An open regular file, for reading. The libraries of this folder stand on their own, so this comes with its
/// own descriptor. Any thread.
class RegularFile {
public:
    /// Follows symbolic links. It is the descriptor that is checked, and a FIFO is not waited for, so nobody
    /// can stop the caller by what he puts at the path.
    /// Throws std::system_error whose text begins with the path.
    explicit RegularFile(const std::filesystem::path& path) {
        if (path.native().find('\0') != std::string::npos) {
            refuse(EINVAL, path);
        }
        descriptor_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        struct stat status {};
        if (descriptor_ < 0 || fstat(descriptor_, &status) != 0) {
            refuse(errno, path);
        }
        if (!S_ISREG(status.st_mode)) {
            refuse(S_ISDIR(status.st_mode) ? EISDIR : EINVAL, path);
        }
        size_ = static_cast<std::uint64_t>(status.st_size);
    }
    ~RegularFile() { closeDescriptor(); }
    RegularFile(RegularFile&& other) noexcept
        : descriptor_(std::exchange(other.descriptor_, -1))
        , size_(other.size_) {}
    RegularFile& operator=(RegularFile&&) = delete;

    [[nodiscard]] int descriptor() const { return descriptor_; }
    /// Bytes, when it was opened.
    [[nodiscard]] std::uint64_t size() const { return size_; }

private:
    [[noreturn]] void refuse(int code, const std::filesystem::path& path) {
        closeDescriptor();
        throw std::system_error(code, std::generic_category(), path.string());
    }

    void closeDescriptor() const {
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
    }

    int descriptor_ = -1;
    std::uint64_t size_ = 0;
};

/// Reads bytes from a place in a file, without moving its position. Any thread.
/// @return how many there are, fewer than size only at the file's end
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
[[nodiscard]] inline std::string readWholeFile(const std::filesystem::path& path, std::size_t limit) {
    const RegularFile file(path);
    if (file.size() > limit) {
        throw std::system_error(EFBIG, std::generic_category(), path.string());
    }
    std::string content(static_cast<std::size_t>(file.size()), '\0');
    content.resize(readAt(file.descriptor(), content.data(), content.size(), 0));
    return content;
}

} // namespace Platform
