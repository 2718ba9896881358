#include "platform/reference/pkgverify/Container.h"

#include "common/Files.h"
#include "platform/reference/signcms/Bytes.h"
#include "platform/reference/signcms/SignedBlob.h"

#include <algorithm>
#include <span>
#include <stdexcept>

namespace PackageSignatures::Container {

namespace {

constexpr std::string_view rpmMagic = "\xED\xAB\xEE\xDB";
constexpr std::size_t rpmLeadSize = 96;
constexpr std::string_view frameMagic = "\x50\x2A\x4D\x18";
constexpr std::string_view trailerMagic = "VNDSIGNT";
constexpr std::uint32_t version = 1;
constexpr std::size_t pieceSize = std::size_t{1024} * 1024;

void readWhole(int descriptor, std::span<char> bytes, std::uint64_t offset) {
    if (Common::readAll(descriptor, std::as_writable_bytes(bytes), offset) != bytes.size()) {
        throw std::runtime_error("package ends too early");
    }
}

std::string bytesAt(int descriptor, std::uint64_t offset, std::size_t size) {
    std::string bytes(size, '\0');
    readWhole(descriptor, bytes, offset);
    return bytes;
}

/// Bytes between the frame header and the file's end.
std::uint64_t frameSize(const Layout& layout) {
    std::uint64_t size = trailerSize;
    for (const auto cmsSize : layout.cmsSizes) {
        size += cmsSize;
    }
    return size;
}

void checkLayout(const Layout& layout) {
    if (layout.packageLength < rpmLeadSize) {
        throw std::runtime_error("package is too short");
    }
    if (layout.cmsSizes.empty() || layout.cmsSizes.size() > maximumCmses) {
        throw std::runtime_error("package does not have one or two signatures");
    }
    for (const auto size : layout.cmsSizes) {
        if (size == 0 || size > maximumBlobSize) {
            throw std::runtime_error("a signature of the package is empty or too large");
        }
    }
}

std::string encodedFrameHeader(const Layout& layout) {
    std::string number;
    appendNumber(number, static_cast<std::uint32_t>(frameSize(layout)));
    std::reverse(number.begin(), number.end());
    return std::string(frameMagic) + number;
}

std::string encodedTrailer(const Layout& layout) {
    std::string bytes;
    appendNumber(bytes, layout.packageLength);
    appendNumber(bytes, static_cast<std::uint32_t>(layout.cmsSizes.size()));
    for (std::size_t i = 0; i < maximumCmses; ++i) {
        appendNumber(bytes, i < layout.cmsSizes.size() ? layout.cmsSizes[i] : std::uint32_t{0});
    }
    appendNumber(bytes, version);
    return bytes.append(trailerMagic);
}

Layout parseTrailer(std::string_view trailer) {
    ByteReader reader(trailer);
    Layout layout;
    layout.packageLength = reader.number<std::uint64_t>();
    const auto count = reader.number<std::uint32_t>();
    for (std::size_t i = 0; i < maximumCmses; ++i) {
        const auto size = reader.number<std::uint32_t>();
        if (i < count) {
            layout.cmsSizes.push_back(size);
        }
    }
    checkLayout(layout);
    // All other bytes of the trailer are fixed.
    if (encodedTrailer(layout) != trailer) {
        throw std::runtime_error("package has a trailer of an unknown format");
    }
    return layout;
}

} // namespace

std::optional<Layout> readLayout(int descriptor, std::uint64_t size) {
    if (size < rpmLeadSize || bytesAt(descriptor, 0, rpmMagic.size()) != rpmMagic) {
        throw std::runtime_error("file is not an rpm package");
    }
    const auto trailer = bytesAt(descriptor, size - trailerSize, trailerSize);
    if (!std::string_view(trailer).ends_with(trailerMagic)) {
        return {};
    }
    auto layout = parseTrailer(trailer);
    const auto tailSize = frameHeaderSize + frameSize(layout);
    if (tailSize > size || layout.packageLength != size - tailSize) {
        throw std::runtime_error("package's trailer does not match the file's size");
    }
    if (bytesAt(descriptor, layout.packageLength, frameHeaderSize) != encodedFrameHeader(layout)) {
        throw std::runtime_error("package's signatures do not begin where its trailer says");
    }
    return layout;
}

std::string encodedTail(std::uint64_t packageLength, const std::vector<std::string>& cmses) {
    Layout layout{packageLength, {}};
    for (const auto& cms : cmses) {
        // A size that does not fit is replaced by one that is refused.
        layout.cmsSizes.push_back(static_cast<std::uint32_t>(std::min(cms.size(), maximumBlobSize + 1)));
    }
    checkLayout(layout);
    auto bytes = encodedFrameHeader(layout);
    for (const auto& cms : cmses) {
        bytes += cms;
    }
    return bytes + encodedTrailer(layout);
}

std::vector<std::string> readCmses(int descriptor, const Layout& layout) {
    std::vector<std::string> cmses;
    auto offset = layout.packageLength + frameHeaderSize;
    for (const auto size : layout.cmsSizes) {
        cmses.push_back(bytesAt(descriptor, offset, size));
        offset += size;
    }
    return cmses;
}

PackageDigest digestOf(int descriptor, std::uint64_t length) {
    const OpenSsl::DigestContext context(EVP_MD_CTX_new());
    OpenSsl::require(context && EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) == 1,
                     "couldn't compute a digest");
    std::string piece(static_cast<std::size_t>(std::min<std::uint64_t>(length, pieceSize)), '\0');
    for (std::uint64_t offset = 0; offset < length;) {
        const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(length - offset, piece.size()));
        readWhole(descriptor, std::span(piece).first(size), offset);
        OpenSsl::require(EVP_DigestUpdate(context.get(), piece.data(), size) == 1,
                         "couldn't compute a digest");
        offset += size;
    }
    PackageDigest digest{length, {}};
    OpenSsl::require(EVP_DigestFinal_ex(context.get(), digest.sha256.data(), nullptr) == 1,
                     "couldn't compute a digest");
    return digest;
}

} // namespace PackageSignatures::Container
