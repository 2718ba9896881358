#pragma once

#include <string_view>

namespace AppManifest {

/// Whether the bytes are UTF-8 as RFC 3629 defines it: no overlong form, no surrogate, nothing above
/// U+10FFFF.
[[nodiscard]] bool isUtf8(std::string_view bytes);

} // namespace AppManifest
