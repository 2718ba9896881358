#pragma once

#include "common/rpm/Reader.h"

#include <cstdint>
#include <functional>

namespace Common::Rpm {

// Checks that a file is one complete package that can be installed. librpm itself reads only the header. The
// thread rules of Reader apply; the file's position does not change.

/// The length in bytes of the package at the beginning of the reader's file, from its lead to the end of its
/// payload, according to its header. Signatures in the platform's format may follow, but no data that a
/// decompressor would read as a part of the payload.
/// Throws Error, code BadPackage, for a source package, for a package without a size, for a truncated package
/// and for a payload that continues after its end; code Filesystem when the file cannot be read.
[[nodiscard]] std::uint64_t packageLength(const Reader& reader);

/// Called after each piece of the payload that was read, with the offset in the file in bytes; the last call
/// has packageLength(). May throw, which ends the reading.
using ReadingProgress = std::function<void(std::uint64_t place)>;

/// Reads the whole payload and compares its digest with that in the header; accepts old packages without a
/// digest. Throws Error: as packageLength(); BadPackage when they differ or the digest's algorithm is
/// unknown.
void requirePayloadDigest(const Reader& reader, const ReadingProgress& progress = {});

/// All of the above, and that packageLength() is the given length: nothing may follow the payload, not even
/// signatures.
void requireWholePackage(const Reader& reader, std::uint64_t length, const ReadingProgress& progress = {});

} // namespace Common::Rpm
