#include "common/rpm/DecompressedStream.h"

#include "common/Error.h"
#include "common/LogLine.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <span>
#include <sys/socket.h>
#include <utility>

namespace Common::Rpm {

namespace {

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
void decompress(Decompressor& source, int socket) {
    try {
        auto bytes = source.next();
        while (!bytes.empty() && sendAll(socket, bytes)) {
            bytes = source.next();
        }
    } catch (const std::exception& error) {
        logError() << error;
    }
}

} // namespace

DecompressedStream::DecompressedStream(std::unique_ptr<Decompressor> source) {
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
    thread_ = std::thread([from = std::move(source), to = std::move(writeEnd)] {
        decompress(*from, to.get());
        shutdown(to.get(), SHUT_WR);
    });
}

DecompressedStream::~DecompressedStream() {
    shutdown(readEnd_.get(), SHUT_RDWR);
    thread_.join();
}

} // namespace Common::Rpm
