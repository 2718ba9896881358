#pragma once

#include "platform/reference/signcms/SignedContent.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The format of a package file with CMS signatures.
///
/// | bytes | content |
/// |---|---|
/// | length | the rpm package, unchanged |
/// | 4 | 50 2A 4D 18 |
/// | 4 | number of bytes that follow, little-endian |
/// | sizes | one or two CMS in DER, the developer's before the client's |
/// | 32 | trailer |
///
/// The eight bytes after the package make the rest a skippable frame of the Zstandard format (RFC
/// 8878, 3.1.2). A decompressor of a zstd payload, which reads to the end of the file, skips it. Payloads of
/// the other compressors have an end mark.
///
/// The trailer, its numbers in network byte order:
///
/// | offset | bytes | field |
/// |---|---|---|
/// | 0 | 8 | length of the package |
/// | 8 | 4 | number of CMS, 1 or 2 |
/// | 12 | 4 | size of the first CMS |
/// | 16 | 4 | size of the second CMS, 0 when there is none |
/// | 20 | 4 | version, 1 |
/// | 24 | 8 | magic "VNDSIGNT" |
///
/// The sizes must add up to the file's size: there is nothing between the parts or after them.
namespace PackageSignatures::Container {

constexpr std::size_t maximumCmses = 2;
constexpr std::size_t trailerSize = 32;
constexpr std::size_t frameHeaderSize = 8;

/// The places of a signed file's parts.
struct Layout {
    std::uint64_t packageLength = 0;     ///< bytes
    std::vector<std::uint32_t> cmsSizes; ///< bytes each
};

/// Reads the layout of an open file and keeps its position. Any thread, as all of these functions.
/// @param size  the file's size in bytes
/// @return nothing for an unsigned package
/// Throws std::runtime_error for a file that does not begin like an rpm package, or whose trailer or frame
/// header does not match the file.
[[nodiscard]] std::optional<Layout> readLayout(int descriptor, std::uint64_t size);

/// The data to append to a package of this length to add the CMSes.
/// Throws std::runtime_error for a number or size of CMSes that readLayout() would refuse.
[[nodiscard]] std::string encodedTail(std::uint64_t packageLength, const std::vector<std::string>& cmses);

/// The CMSes of a layout, in their order. Throws std::runtime_error when the file ends early.
[[nodiscard]] std::vector<std::string> readCmses(int descriptor, const Layout& layout);

/// Hashes the file's first bytes, in pieces. Throws std::runtime_error when it has fewer.
[[nodiscard]] PackageDigest digestOf(int descriptor, std::uint64_t length);

} // namespace PackageSignatures::Container
