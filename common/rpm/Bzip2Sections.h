#pragma once

#include "common/UniqueFd.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

// A bzip2 stream is four bytes, then blocks, then its end. Blocks and the end begin, at any bit, with a mark
// of 48 bits and a checksum of 32, and no block needs another: it can be decompressed as a stream of its own.
// The format is the one that bzip2(1) writes.

namespace Common::Rpm::Bzip2 {

constexpr std::uint64_t blockMark = 0x314159265359;
constexpr std::uint64_t endMark = 0x177245385090;
constexpr std::size_t markBits = 48;
constexpr std::size_t checksumBits = 32;

using Bytes = std::vector<std::uint8_t>;

/// The bits from one mark to the next. A mark that is none, as data may look like one, cuts a block in two.
struct Section {
    Bytes bytes;
    std::size_t firstBit; ///< below 8
    std::size_t endBit;

    /// Whether there is a mark and a checksum to ask for.
    [[nodiscard]] bool isWhole() const { return endBit - firstBit >= markBits + checksumBits; }
    [[nodiscard]] std::uint64_t mark() const { return bits(0, markBits); }
    [[nodiscard]] std::uint32_t checksum() const {
        return static_cast<std::uint32_t>(bits(markBits, checksumBits));
    }
    /// The first ones come from the left. At most 64.
    [[nodiscard]] std::uint64_t bits(std::size_t from, std::size_t count) const;

    /// Adds the section that follows in the file.
    void join(const Section& next);

    /// A whole one that is a block as a stream of its own.
    /// @param blockSize  the character that tells it in the header of the stream that the block comes from
    [[nodiscard]] Bytes asStream(char blockSize) const;
};

/// Cuts a stream into sections, by one thread.
class SectionReader {
public:
    /// @param file  at the stream's first byte
    explicit SectionReader(UniqueFd file)
        : file_(std::move(file)) {}

    /// Reads the header, once, before anything else.
    /// @return the character that tells the size of the stream's blocks, "1" to "9"
    /// Throws Error, code BadPackage, when it is none of bzip2.
    char blockSize();

    /// @return nothing at the end of the file. What follows the stream is read as well, in sections of a few
    ///         megabytes at most.
    std::optional<Section> next();

private:
    [[nodiscard]] std::optional<std::size_t> markInWindow() const;
    Section cut(std::size_t endBit);
    bool refill();

    UniqueFd file_;
    Bytes buffer_; ///< from the byte on in which the present section begins
    std::size_t firstBit_ = 0;
    std::size_t place_ = 0; ///< of the next byte to look at
    std::uint64_t window_ = 0;
};

} // namespace Common::Rpm::Bzip2
