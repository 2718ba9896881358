#pragma once

#include "common/UniqueFd.h"

#include <array>
#include <cstdint>
#include <isa-l/igzip_lib.h>
#include <span>
#include <thread>

namespace Common::Rpm {

/// Decompresses gzip (RFC 1952) with ISA-L on its own thread. Bytes after the last member are ignored.
/// Content that is itself gzip data is treated as damaged: librpm, which reads the stream, would decompress
/// it again, without a limit. Made and used by one other thread.
class GzipStream {
public:
    /// @param file  positioned at the first member; must outlive the stream and not be used elsewhere
    /// Throws Error: Filesystem when no descriptors are available, Internal when no thread can be created.
    explicit GzipStream(int file);

    /// Stops the thread and joins it.
    ~GzipStream() { stop(); }
    GzipStream(const GzipStream&) = delete;
    GzipStream& operator=(const GzipStream&) = delete;

    /// The decompressed stream. Reads may be short. The stream ends before data that is damaged or cannot be
    /// read.
    [[nodiscard]] int descriptor() const { return readEnd_.get(); }

    /// Stops decompression.
    /// @return the errno value of a failed read of the file; 0 if none failed
    int stop();

private:
    void run();
    bool fill();
    bool refill();
    void endMember();
    bool send(std::span<const std::uint8_t> bytes);

    UniqueFd readEnd_;
    int file_; // this and the next members belong to the thread until it ends
    UniqueFd writeEnd_;
    inflate_state state_;
    std::array<std::uint8_t, 65536> compressed_;
    std::array<std::uint8_t, 131072> plain_;
    bool ended_ = false;
    int readError_ = 0;
    std::thread thread_;
};

} // namespace Common::Rpm
