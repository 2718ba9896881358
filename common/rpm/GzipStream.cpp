#include "common/rpm/GzipStream.h"

#include "common/Error.h"
#include "common/LogLine.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <isa-l/igzip_lib.h>
#include <memory>
#include <span>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace Common::Rpm {

namespace {

constexpr std::size_t compressedSize = std::size_t{64} * 1024;
constexpr std::size_t plainSize = std::size_t{128} * 1024;
constexpr std::uint8_t firstByteOfMember = 0x1f;

[[noreturn]] void throwDamaged() {
    throw Error(ErrorCode::BadPackage, "couldn't decompress payload of rpm package");
}

class Decompressor {
public:
    explicit Decompressor(UniqueFd file)
        : file_(std::move(file)) {
        isal_inflate_init(&state_);
        state_.crc_flag = ISAL_GZIP;
    }

    /// @return the next bytes; none at the end
    std::span<const std::uint8_t> next() {
        state_.next_out = plain_.data();
        state_.avail_out = plain_.size();
        while (state_.avail_out > 0 && !ended_) {
            step();
        }
        return std::span(plain_).first(plain_.size() - state_.avail_out);
    }

private:
    void step() {
        const auto in = state_.avail_in;
        const auto out = state_.avail_out;
        if (isal_inflate(&state_) < 0) {
            throwDamaged();
        }
        const bool idle = state_.avail_in == in && state_.avail_out == out;
        if (state_.block_state == ISAL_BLOCK_FINISH) {
            endMember();
        } else if (idle && (in > 0 || !refill())) {
            throwDamaged();
        }
    }

    bool refill() {
        ssize_t count = 0;
        do {
            count = read(file_.get(), compressed_.data(), compressed_.size());
        } while (count < 0 && errno == EINTR);
        state_.next_in = compressed_.data();
        state_.avail_in = static_cast<std::uint32_t>(std::max<ssize_t>(count, 0));
        return count > 0;
    }

    void endMember() {
        ended_ = (state_.avail_in == 0 && !refill()) || *state_.next_in != firstByteOfMember;
        if (!ended_) {
            isal_inflate_reset(&state_);
        }
    }

    UniqueFd file_;
    inflate_state state_;
    std::array<std::uint8_t, compressedSize> compressed_;
    std::array<std::uint8_t, plainSize> plain_;
    bool ended_ = false;
};

/// @return false when nobody reads any more
bool sendAll(int socket, std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const auto count = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return true;
}

// Damage ends the stream early, which librpm takes for what it is.
void decompress(UniqueFd file, int socket) {
    try {
        const auto source = std::make_unique<Decompressor>(std::move(file));
        auto bytes = source->next();
        while (!bytes.empty() && sendAll(socket, bytes)) {
            bytes = source->next();
        }
    } catch (const std::exception& error) {
        logError() << error;
    }
}

} // namespace

GzipStream::GzipStream(UniqueFd file) {
    // A socket, and not a pipe: shutdown() ends it whoever else has inherited an end, and its low-water mark
    // makes read() wait for all that it is asked for. librpm takes fewer bytes for the end.
    std::array<int, 2> ends{-1, -1};
    const int result = socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data());
    readEnd_ = UniqueFd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    constexpr int everything = INT_MAX;
    if (result != 0 ||
        setsockopt(readEnd_.get(), SOL_SOCKET, SO_RCVLOWAT, &everything, sizeof(everything)) != 0) {
        throw Error(ErrorCode::Filesystem, "couldn't make a socket to read the rpm package through");
    }
    thread_ = std::thread([from = std::move(file), to = std::move(writeEnd)]() mutable {
        decompress(std::move(from), to.get());
        shutdown(to.get(), SHUT_WR);
    });
}

GzipStream::~GzipStream() {
    shutdown(readEnd_.get(), SHUT_RDWR);
    thread_.join();
}

} // namespace Common::Rpm
