#pragma once

#include "common/UniqueFd.h"
#include "common/rpm/Decompressor.h"

#include <exception>
#include <memory>
#include <thread>

namespace Common::Rpm {

/// What a decompressor gives, as a descriptor to read from. A thread of its own decompresses a little ahead
/// of the reader. Made and used by one other thread. For an archive in its compression: what would be
/// compressed once more is taken for damaged.
class DecompressedStream {
public:
    /// Throws Error, code Filesystem, when no descriptors are to be had, and code Internal, when no thread
    /// is.
    explicit DecompressedStream(std::unique_ptr<Decompressor> source);

    /// Stops the thread and joins it.
    ~DecompressedStream();
    DecompressedStream(const DecompressedStream&) = delete;
    DecompressedStream& operator=(const DecompressedStream&) = delete;

    /// As that of a pipe: a read may give less than it asks for. It ends also where the decompressor failed.
    [[nodiscard]] int descriptor() const { return readEnd_.get(); }

    /// Ends the stream, wherever it is. Rethrows what the decompressor threw, if it did.
    void stop();

private:
    void end();
    void run();

    // The thread's own until its end.
    std::unique_ptr<Decompressor> source_;
    UniqueFd writeEnd_;
    std::exception_ptr failure_;

    UniqueFd readEnd_;
    std::thread thread_;
};

} // namespace Common::Rpm
