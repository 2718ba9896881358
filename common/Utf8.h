#pragma once

#include <cstddef>
#include <string_view>

namespace Common {

struct Utf8Character {
    char32_t code;      ///< the character's number; the byte's value where the byte begins none
    std::size_t length; ///< in bytes; 1 where the byte begins no character
    bool valid;
};

/// Decodes the character at the front of a text (RFC 3629). Overlong forms, surrogates, numbers past the last
/// plane and sequences that the text cuts off are no characters.
/// @param text  not empty
/// Any thread.
[[nodiscard]] Utf8Character decodeUtf8(std::string_view text) noexcept;

/// Whether a text consists of characters that decodeUtf8() takes. Any thread.
[[nodiscard]] bool isUtf8(std::string_view text) noexcept;

} // namespace Common
