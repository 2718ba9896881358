#pragma once

#include "common/UniqueFd.h"

#include <array>
#include <cstdint>
#include <isa-l/igzip_lib.h>
#include <span>
#include <thread>

namespace Common::Rpm {

/// Decompresses gzip (RFC 1952) with ISA-L on a thread of its own. Bytes behind the last member are ignored.
/// Content that is gzip again is damaged: librpm's reader at the other end would decompress it, too, without
/// a limit. Made and used by one other thread.
class GzipStream {
public:
    /// @param file  at the first member; outlives the stream and is not used meanwhile
    /// Throws Error: Filesystem when there are no descriptors, Internal when there is no thread.
    explicit GzipStream(int file);

    /// Stops the thread and joins it.
    ~GzipStream() { stop(); }
    GzipStream(const GzipStream&) = delete;
    GzipStream& operator=(const GzipStream&) = delete;

    /// A read may give less than it asks for. The stream ends before a piece that is damaged or not read.
    [[nodiscard]] int descriptor() const { return readEnd_.get(); }

    /// Ends the stream at any place.
    /// @return the errno value of a read of the file that failed; 0 if none did
    int stop();

private:
    void run();
    bool fill();
    bool refill();
    void endMember();
    bool send(std::span<const std::uint8_t> bytes);

    UniqueFd readEnd_;
    int file_; // it and what follows belong to the thread until its end
    UniqueFd writeEnd_;
    inflate_state state_;
    std::array<std::uint8_t, 65536> compressed_;
    std::array<std::uint8_t, 131072> plain_;
    bool ended_ = false;
    int readError_ = 0;
    std::thread thread_;
};

} // namespace Common::Rpm
