#pragma once

#include <unistd.h>
#include <utility>

namespace Common {

/// Sole owner of a file descriptor; closes it on destruction. -1: no descriptor.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd)
        : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept
        : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~UniqueFd() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

} // namespace Common
