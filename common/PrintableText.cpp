#include "common/PrintableText.h"

#include "common/Utf8.h"

#include <iomanip>
#include <sstream>

namespace Common {

namespace {

bool steersTerminal(char32_t code) {
    return code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0x61c || code == 0x200e ||
           code == 0x200f || (code >= 0x2028 && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069) ||
           code == 0xfeff;
}

std::string escaped(const Utf8Character& character) {
    std::ostringstream out;
    out << std::hex << std::setfill('0');
    if (!character.valid || character.code < 0x80) {
        out << "\\x" << std::setw(2) << static_cast<unsigned>(character.code);
    } else {
        out << "\\u{" << static_cast<unsigned>(character.code) << '}';
    }
    return out.str();
}

} // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const auto character = decodeUtf8(text);
        if (!character.valid || steersTerminal(character.code)) {
            result += escaped(character);
        } else {
            result += text.substr(0, character.length);
        }
        text.remove_prefix(character.length);
    }
    return result;
}

} // namespace Common
