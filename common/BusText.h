#pragma once

#include <string_view>

namespace Common {

/// Whether the text may travel as a D-Bus string: valid UTF-8 (RFC 3629) without NUL and, as sd-bus wants it,
/// without Unicode noncharacters. What comes from a bus is; what comes from a file may not be, and a message
/// with such a text cannot be sent. Any thread.
[[nodiscard]] bool isBusText(std::string_view text) noexcept;

} // namespace Common
