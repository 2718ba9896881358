#pragma once

#include "common/UniqueFd.h"
#include "common/rpm/Decompressor.h"

#include <memory>
#include <thread>

namespace Common::Rpm {

/// What a decompressor gives, as a descriptor to read from. A thread of its own decompresses a little ahead
/// of the reader.
class DecompressedStream {
public:
    /// Throws Error, code Filesystem, when the system has no descriptors left.
    explicit DecompressedStream(std::unique_ptr<Decompressor> source);

    /// Stops the thread and joins it.
    ~DecompressedStream();
    DecompressedStream(const DecompressedStream&) = delete;
    DecompressedStream& operator=(const DecompressedStream&) = delete;

    /// A descriptor to read from, by one thread at a time. A read waits until it has all that it asks for.
    /// The end of the file and damage cut it short, and so does a signal that the reading thread handles.
    [[nodiscard]] int descriptor() const { return readEnd_.get(); }

private:
    UniqueFd readEnd_;
    std::thread thread_;
};

} // namespace Common::Rpm
