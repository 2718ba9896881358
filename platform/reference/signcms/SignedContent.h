#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace PackageSignatures {

/// The signed bytes of a package.
struct PackageDigest {
    std::uint64_t length = 0; ///< of the package in bytes, from the file's beginning
    std::array<unsigned char, 32> sha256{};

    bool operator==(const PackageDigest&) const = default;
};

/// The signatures of one file of a package; one of them may be empty.
struct FileSignatures {
    std::uint32_t index = 0; ///< in the package's file list
    std::string integrity;   ///< value of the attribute "security.ima"
    std::string trustlet;    ///< value of the attribute "user.TA.shdr"
};

/// The content of a CMS, which the signer signs: "A CMS" in docs/package-signatures.md.
struct SignedContent {
    static constexpr std::uint32_t maximumFiles = 100'000;
    static constexpr std::uint16_t maximumSignatureSize = 2048;

    PackageDigest package;
    std::vector<FileSignatures> files; ///< in ascending order of the index

    /// Throws std::runtime_error for content that the format cannot represent. Any thread, as parse().
    [[nodiscard]] std::string encoded() const;
    /// Throws std::runtime_error for bytes that encoded() does not return for any content.
    [[nodiscard]] static SignedContent parse(std::string_view bytes);
};

} // namespace PackageSignatures
