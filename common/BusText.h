#pragma once

#include <string_view>

namespace Common {

/// Whether sd-bus can send the text as a D-Bus string: valid UTF-8 (RFC 3629) without NUL and Unicode
/// noncharacters. The checks of GLib and libdbus cannot be used because they accept noncharacters. Any
/// thread.
[[nodiscard]] bool isBusText(std::string_view text) noexcept;

} // namespace Common
