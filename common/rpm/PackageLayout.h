#pragma once

#include <cstdint>
#include <optional>

namespace Common::Rpm {

/// Where the parts of a package file are, as the sizes in its own headers say; offsets in bytes.
struct PackageLayout {
    static constexpr std::uint64_t signatureOffset = 96; ///< of the signature header, behind the lead

    std::uint64_t headerOffset = 0;              ///< of the main header
    std::uint64_t payloadOffset = 0;             ///< of what follows it; headerOffset where there is none
    std::optional<std::uint64_t> endOffset = {}; ///< of the package's end; some headers have no size
};

/// Reads the layout without touching the file's position, and nothing but the sizes: whether the package is
/// one remains to be seen.
/// @return nothing where there is no signature header
/// Throws Error, code Filesystem, when the file cannot be read. Any thread.
[[nodiscard]] std::optional<PackageLayout> readPackageLayout(int file);

} // namespace Common::Rpm
