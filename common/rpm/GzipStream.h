#pragma once

#include "common/UniqueFd.h"

#include <thread>

namespace Common::Rpm {

/// A gzip file (RFC 1952) as a stream of what is in it, decompressed and checked a little ahead of the reader
/// by a thread of its own: librpm's own way takes more than twice the time.
class GzipStream {
public:
    /// @param file  at the first member; what follows the last one is not looked at
    /// Throws Error, code Filesystem, when the system has no descriptors left.
    explicit GzipStream(UniqueFd file);

    /// Stops the thread and joins it.
    ~GzipStream();
    GzipStream(const GzipStream&) = delete;
    GzipStream& operator=(const GzipStream&) = delete;

    /// A descriptor to read from, by one thread at a time. A read waits until it has all that it asks for.
    /// The end of the file and damage cut it short, and so does a signal that the reading thread handles.
    [[nodiscard]] int descriptor() const { return readEnd_.get(); }

private:
    UniqueFd readEnd_;
    std::thread thread_;
};

} // namespace Common::Rpm
