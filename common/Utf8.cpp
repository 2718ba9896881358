#include "common/Utf8.h"

namespace Common {

Utf8Character decodeUtf8(std::string_view text) noexcept {
    const auto byte = [text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned char first = byte(0);
    if (first < 0x80) {
        return {first, 1, true};
    }
    const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < length) {
        return {first, 1, false};
    }
    char32_t code = first & (0xffU >> (length + 1));
    for (std::size_t index = 1; index < length; ++index) {
        if ((byte(index) & 0xc0U) != 0x80) {
            return {first, 1, false};
        }
        code = (code << 6U) | (byte(index) & 0x3fU);
    }
    const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    if (overlong || (code >= 0xd800 && code <= 0xdfff) || code > 0x10ffff) {
        return {first, 1, false};
    }
    return {code, length, true};
}

bool isUtf8(std::string_view text) noexcept {
    while (!text.empty()) {
        const auto character = decodeUtf8(text);
        if (!character.valid) {
            return false;
        }
        text.remove_prefix(character.length);
    }
    return true;
}

} // namespace Common
