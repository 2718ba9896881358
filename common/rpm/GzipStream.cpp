#include "common/rpm/GzipStream.h"

#include "common/Files.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>
#include <system_error>

namespace Common::Rpm {

constexpr std::array<std::uint8_t, 2> magic{0x1f, 0x8b};

// The state is initialised below, and what is read fills the buffers.
// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
GzipStream::GzipStream(int file)
    : file_(file) {
    // A socket instead of a pipe: shutdown(2) ends it even if a child process has inherited one end.
    std::array<int, 2> ends{-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw filesystemError("couldn't make a socket to read the rpm package through");
    }
    readEnd_ = UniqueFd(ends[0]);
    writeEnd_ = UniqueFd(ends[1]);
    isal_inflate_init(&state_);
    state_.crc_flag = ISAL_GZIP;
    try {
        thread_ = std::thread([this] {
            run();
            shutdown(writeEnd_.get(), SHUT_WR);
        });
    } catch (const std::system_error& error) {
        throw Error(ErrorCode::Internal, std::string("couldn't start a thread: ") + error.what());
    }
}

int GzipStream::stop() {
    shutdown(readEnd_.get(), SHUT_RDWR);
    if (thread_.joinable()) {
        thread_.join();
    }
    return readError_;
}

void GzipStream::run() {
    for (bool isFirst = true; !ended_ && fill(); isFirst = false) {
        const auto piece = std::span(plain_).first(plain_.size() - state_.avail_out);
        if ((isFirst && !piece.empty() && piece.front() == magic.front()) || !send(piece)) {
            return;
        }
    }
}

bool GzipStream::fill() {
    state_.next_out = plain_.data();
    state_.avail_out = sizeof plain_;
    while (state_.avail_out > 0 && !ended_) {
        const auto in = state_.avail_in;
        const auto out = state_.avail_out;
        if (isal_inflate(&state_) < 0) {
            return false;
        }
        const bool isIdle = state_.avail_in == in && state_.avail_out == out;
        if (state_.block_state == ISAL_BLOCK_FINISH) {
            endMember();
        } else if (isIdle && (in > 0 || !refill())) {
            return false;
        }
    }
    return readError_ == 0;
}

bool GzipStream::refill() {
    std::copy_n(state_.next_in, state_.avail_in, compressed_.begin());
    state_.next_in = compressed_.data();
    const auto count =
        readAll(file_, std::as_writable_bytes(std::span(compressed_).subspan(state_.avail_in)));
    readError_ = count ? 0 : errno;
    state_.avail_in += static_cast<std::uint32_t>(count.value_or(0));
    return count.value_or(0) > 0;
}

void GzipStream::endMember() {
    if (state_.avail_in < magic.size()) {
        refill();
    }
    ended_ = state_.avail_in < magic.size() || !std::equal(magic.begin(), magic.end(), state_.next_in);
    isal_inflate_reset(&state_);
}

/// @return false when the other end is closed
bool GzipStream::send(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const auto count = ::send(writeEnd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return true;
}

} // namespace Common::Rpm
