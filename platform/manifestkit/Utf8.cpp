#include "platform/manifestkit/Utf8.h"

#include <cstddef>

namespace AppManifest {

namespace {

struct Lead {
    std::size_t length; ///< bytes of the whole character; 0 for a byte that begins none
    unsigned char lowestSecond = 0x80;
    unsigned char highestSecond = 0xBF;
};

// The table of RFC 3629, section 4: only the second byte is ever limited further than 80..BF.
Lead leadOf(unsigned char byte) {
    if (byte < 0x80) {
        return {1};
    }
    if (byte < 0xC2 || byte > 0xF4) {
        return {0};
    }
    if (byte < 0xE0) {
        return {2};
    }
    if (byte < 0xF0) {
        return {3, static_cast<unsigned char>(byte == 0xE0 ? 0xA0 : 0x80),
                static_cast<unsigned char>(byte == 0xED ? 0x9F : 0xBF)};
    }
    return {4, static_cast<unsigned char>(byte == 0xF0 ? 0x90 : 0x80),
            static_cast<unsigned char>(byte == 0xF4 ? 0x8F : 0xBF)};
}

} // namespace

bool isUtf8(std::string_view bytes) {
    while (!bytes.empty()) {
        const auto lead = leadOf(static_cast<unsigned char>(bytes.front()));
        if (lead.length == 0 || lead.length > bytes.size()) {
            return false;
        }
        for (std::size_t i = 1; i < lead.length; ++i) {
            const auto byte = static_cast<unsigned char>(bytes[i]);
            if (byte < (i == 1 ? lead.lowestSecond : 0x80) || byte > (i == 1 ? lead.highestSecond : 0xBF)) {
                return false;
            }
        }
        bytes.remove_prefix(lead.length);
    }
    return true;
}

} // namespace AppManifest
