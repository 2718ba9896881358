#pragma once

#include "common/UniqueFd.h"

#include <cstdint>
#include <memory>
#include <span>

namespace Common::Rpm {

/// What is in a compressed file, piece by piece. Used by one thread at a time.
class Decompressor {
public:
    Decompressor() = default;
    virtual ~Decompressor() = default;
    Decompressor(const Decompressor&) = delete;
    Decompressor& operator=(const Decompressor&) = delete;

    /// @return the next bytes, valid until the next call; none at the end
    /// Throws Error, code BadPackage, when the file is damaged, and code Filesystem, when it cannot be read.
    virtual std::span<const std::uint8_t> next() = 0;
};

/// Reads gzip (RFC 1952) with ISA-L. What follows the last member is left alone unless it begins as another.
/// @param file  at the first member
std::unique_ptr<Decompressor> gzipDecompressor(UniqueFd file);

/// Reads until the buffer is full or the file ends.
/// @return number of bytes read
/// Throws Error, code Filesystem.
std::size_t readCompressed(const UniqueFd& file, std::span<std::uint8_t> buffer);

[[noreturn]] void throwDamagedPayload();

} // namespace Common::Rpm
