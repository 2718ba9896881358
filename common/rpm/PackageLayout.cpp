#include "common/rpm/PackageLayout.h"

#include "common/Files.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

namespace Common::Rpm {

namespace {

constexpr std::uint64_t introSize = 16;   // magic and two counts
constexpr std::uint64_t entrySize = 16;   // of a header's index
constexpr std::uint64_t mostEntries = 64; // more than librpm lets a signature header have

/// @return false where the file ends before
bool readAt(int file, std::uint64_t offset, std::span<unsigned char> bytes) {
    const auto count = readAll(file, std::as_writable_bytes(bytes), offset);
    if (!count) {
        throw filesystemError("couldn't read rpm package");
    }
    return *count == bytes.size();
}

std::uint64_t bigEndian(std::span<const unsigned char> bytes) noexcept {
    std::uint64_t number = 0;
    for (const unsigned char byte : bytes) {
        number = (number << 8U) | byte;
    }
    return number;
}

struct HeaderSize {
    std::uint64_t entries = 0;
    std::uint64_t data = 0; ///< bytes

    [[nodiscard]] std::uint64_t bytes() const { return introSize + entries * entrySize + data; }
};

std::optional<HeaderSize> headerSizeAt(int file, std::uint64_t offset) {
    constexpr std::array<unsigned char, 8> magic{0x8e, 0xad, 0xe8, 0x01, 0, 0, 0, 0};
    std::array<unsigned char, introSize> intro{};
    if (!readAt(file, offset, intro) || !std::equal(magic.begin(), magic.end(), intro.begin())) {
        return {};
    }
    return HeaderSize{bigEndian(std::span(intro).subspan(8, 4)), bigEndian(std::span(intro).subspan(12, 4))};
}

/// The size in bytes of main header and payload.
std::optional<std::uint64_t> sizeInSignature(int file, const HeaderSize& signature) {
    constexpr std::uint64_t index = PackageLayout::signatureOffset + introSize;
    for (std::uint64_t place = 0; place < std::min(signature.entries, mostEntries); ++place) {
        std::array<unsigned char, entrySize> entry{};
        if (!readAt(file, index + place * entrySize, entry)) {
            return {};
        }
        const auto field = [&](std::size_t number) {
            return bigEndian(std::span(entry).subspan(number * 4, 4));
        };
        const bool isSize = field(0) == 1000 && field(1) == 4;    // RPMSIGTAG_SIZE, RPM_INT32_TYPE
        const bool isLongSize = field(0) == 270 && field(1) == 5; // RPMSIGTAG_LONGSIZE, RPM_INT64_TYPE
        std::array<unsigned char, 8> value{};
        const auto bytes = std::span(value).first(isLongSize ? 8 : 4);
        if ((isSize || isLongSize) && readAt(file, index + signature.entries * entrySize + field(2), bytes)) {
            return bigEndian(bytes);
        }
    }
    return {};
}

} // namespace

std::optional<PackageLayout> readPackageLayout(int file) {
    const auto signature = headerSizeAt(file, PackageLayout::signatureOffset);
    if (!signature) {
        return {};
    }
    PackageLayout layout;
    layout.headerOffset = PackageLayout::signatureOffset + (signature->bytes() + 7) / 8 * 8;
    const auto main = headerSizeAt(file, layout.headerOffset);
    layout.payloadOffset = layout.headerOffset + (main ? main->bytes() : 0);
    if (const auto size = sizeInSignature(file, *signature)) {
        layout.endOffset = layout.headerOffset + *size;
    }
    return layout;
}

} // namespace Common::Rpm
