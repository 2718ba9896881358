#include "platform/manifestkit/AppManifest.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const auto manifest =
            AppManifest::ManifestEntry::fromBytes({reinterpret_cast<const char*>(data), size});
        (void)manifest.value("Desktop Entry", "Name");
        (void)manifest.appOrgname();
        (void)manifest.appName();
    } catch (const std::runtime_error&) { // a clear refusal
    }
    return 0;
}
