#pragma once

#include "common/rpm/Reader.h"

#include <cstdint>
#include <functional>

namespace Common::Rpm {

// What makes a file whose header librpm accepts one whole package that can be installed. librpm itself looks
// at nothing behind the header. The thread rules of Reader apply; the file's position is not touched.

/// The length in bytes of the package at the beginning of the reader's file, from its lead to the end of its
/// payload, as its header says. Behind that the file may have anything that no unpacker takes for more of the
/// payload: signatures in a form that only the platform's library knows.
/// Throws Error, code BadPackage, for a source package, for a package without a size, for one that the file
/// has not all of, and for a payload that continues behind its end; code Filesystem when the file cannot be
/// read.
[[nodiscard]] std::uint64_t packageLength(const Reader& reader);

/// Is called after each piece of the payload that was read, with the place in the file in bytes: at last
/// packageLength(). May throw, which ends the reading.
using ReadingProgress = std::function<void(std::uint64_t place)>;

/// Reads the whole payload and compares it with the digest that the header has; an old package without such a
/// digest passes. Throws Error: what packageLength() throws; BadPackage when they differ or the digest is of
/// an unknown kind.
void requirePayloadDigest(const Reader& reader, const ReadingProgress& progress = {});

/// All of the above, and that the package has the length which the caller knows from elsewhere: nothing is
/// behind its payload, a signature of before no more than anything else.
void requireWholePackage(const Reader& reader, std::uint64_t length, const ReadingProgress& progress = {});

} // namespace Common::Rpm
