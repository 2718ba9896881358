#pragma once

#include <string>
#include <string_view>

namespace Common {

/// The text with everything that could steer a terminal or reorder what it shows written as \xNN or \u{NNNN}:
/// control characters, bidirectional controls, line separators and bytes that are no UTF-8 (RFC 3629). Any
/// thread.
[[nodiscard]] std::string printable(std::string_view text);

} // namespace Common
