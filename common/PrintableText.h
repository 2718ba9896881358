#pragma once

#include <string>
#include <string_view>

namespace Common {

/// Escapes characters that control a terminal or reorder its output as \xNN or \u{NNNN}: control characters,
/// bidirectional controls, line separators and bytes that are not valid UTF-8 (RFC 3629). Any thread.
[[nodiscard]] std::string printable(std::string_view text);

} // namespace Common
