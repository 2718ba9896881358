#include "common/BusText.h"

#include <cstddef>
#include <cstdint>

namespace Common {

namespace {

// How many bytes follow a lead byte, and the smallest character that needs so many.
struct Sequence {
    std::size_t following;
    std::uint32_t bits;
    std::uint32_t smallest;
};

constexpr Sequence sequenceOf(std::uint32_t lead) {
    if (lead < 0x80) {
        return {0, lead, 1};
    }
    if (lead >= 0xc0 && lead < 0xe0) {
        return {1, lead & 0x1fU, 0x80};
    }
    if (lead >= 0xe0 && lead < 0xf0) {
        return {2, lead & 0x0fU, 0x800};
    }
    return {3, lead >= 0xf0 && lead < 0xf8 ? lead & 0x07U : 0, 0x10000};
}

} // namespace

bool isBusText(std::string_view text) noexcept {
    for (std::size_t position = 0; position < text.size();) {
        auto [following, character, smallest] = sequenceOf(static_cast<unsigned char>(text[position++]));
        if (following > text.size() - position) {
            return false;
        }
        for (; following > 0; --following) {
            const auto byte = static_cast<unsigned char>(text[position++]);
            if ((byte & 0xc0U) != 0x80) {
                return false;
            }
            character = (character << 6U) | (byte & 0x3fU);
        }
        const bool surrogate = character >= 0xd800 && character < 0xe000;
        const bool noncharacter =
            (character >= 0xfdd0 && character < 0xfdf0) || (character & 0xfffeU) == 0xfffe;
        if (character < smallest || surrogate || noncharacter || character > 0x10ffff) {
            return false;
        }
    }
    return true;
}

} // namespace Common
