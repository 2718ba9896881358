#include "common/BusText.h"

#include "common/Utf8.h"

namespace Common {

bool isBusText(std::string_view text) noexcept {
    while (!text.empty()) {
        const auto [code, length, valid] = decodeUtf8(text);
        const bool noncharacter = (code >= 0xfdd0 && code <= 0xfdef) || (code & 0xfffeU) == 0xfffe;
        if (!valid || code == 0 || noncharacter) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

} // namespace Common
