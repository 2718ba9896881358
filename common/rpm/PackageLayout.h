#pragma once

#include <cstdint>
#include <optional>

namespace Common::Rpm {

/// The parts of a package file according to the sizes in its own headers; offsets in bytes.
struct PackageLayout {
    static constexpr std::uint64_t signatureOffset = 96; ///< of the signature header, after the lead

    std::uint64_t headerOffset = 0;              ///< of the main header
    std::uint64_t payloadOffset = 0;             ///< of the payload; headerOffset if there is no main header
    std::optional<std::uint64_t> endOffset = {}; ///< of the package's end; some headers have no size
};

/// Reads the layout and keeps the file's position. Only sizes are read; the package may still be invalid.
/// @return nothing if there is no signature header
/// Throws Error, code Filesystem, when the file cannot be read. Any thread.
[[nodiscard]] std::optional<PackageLayout> readPackageLayout(int file);

} // namespace Common::Rpm
