#pragma once

#include "platform/reference/signcms/SignedContent.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The format of a package file with CMS signatures: "The file" in docs/package-signatures.md.
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
