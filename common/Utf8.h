#pragma once

#include <cstddef>
#include <string_view>

namespace Common {

struct Utf8Character {
    char32_t code;      ///< code point; if not valid, the value of the first byte
    std::size_t length; ///< in bytes; 1 if not valid
    bool valid;
};

/// Decodes the first character of a text (RFC 3629). Overlong forms, surrogates, code points above U+10FFFF
/// and truncated sequences are not valid.
/// @param text  not empty
/// Any thread.
[[nodiscard]] Utf8Character decodeUtf8(std::string_view text) noexcept;

/// Whether all characters of a text are valid for decodeUtf8(). Any thread.
[[nodiscard]] bool isUtf8(std::string_view text) noexcept;

} // namespace Common
