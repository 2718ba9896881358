#pragma once

#include <string_view>

namespace Common {

/// Whether the text can be sent as a D-Bus string by sd-bus: valid UTF-8 (RFC 3629) without NUL and Unicode
/// noncharacters. GLib and libdbus accept noncharacters, so their checks do not serve. Any thread.
[[nodiscard]] bool isBusText(std::string_view text) noexcept;

} // namespace Common
