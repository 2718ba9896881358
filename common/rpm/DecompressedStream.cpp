#include "common/rpm/DecompressedStream.h"

#include "common/Files.h"
#include "common/StartThread.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <span>
#include <sys/socket.h>
#include <utility>

namespace Common::Rpm {

namespace {

constexpr std::uint8_t firstByteOfGzip = 0x1f;

/// @return false when nobody reads any more
bool sendAll(const UniqueFd& socket, std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const auto count = send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EPIPE) {
            return false;
        }
        if (count < 0 && errno != EINTR) {
            throw filesystemError("couldn't hand on what was decompressed");
        }
        bytes = bytes.subspan(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return true;
}

} // namespace

DecompressedStream::DecompressedStream(std::unique_ptr<Decompressor> source)
    : source_(std::move(source)) {
    // A socket, and not a pipe: shutdown() ends it whoever else has inherited an end.
    std::array<int, 2> ends{-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw filesystemError("couldn't make a socket to read the rpm package through");
    }
    readEnd_ = UniqueFd(ends[0]);
    writeEnd_ = UniqueFd(ends[1]);
    thread_ = startThread([this] { run(); });
}

DecompressedStream::~DecompressedStream() { end(); }

void DecompressedStream::stop() {
    end();
    if (failure_) {
        std::rethrow_exception(failure_);
    }
}

void DecompressedStream::end() {
    shutdown(readEnd_.get(), SHUT_RDWR);
    if (thread_.joinable()) {
        thread_.join();
    }
}

void DecompressedStream::run() {
    try {
        auto bytes = source_->next();
        // librpm's gzip reader at the other end would decompress that, too, and nothing would limit it. An
        // archive begins otherwise.
        if (!bytes.empty() && bytes.front() == firstByteOfGzip) {
            throwDamagedPayload();
        }
        while (!bytes.empty() && sendAll(writeEnd_, bytes)) {
            bytes = source_->next();
        }
    } catch (...) {
        failure_ = std::current_exception();
    }
    shutdown(writeEnd_.get(), SHUT_WR);
}

} // namespace Common::Rpm
