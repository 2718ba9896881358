#include "fuzz/Require.h"
#include "platform/reference/signcms/SignedBlob.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace {

using namespace PackageSignatures;

/// The same bytes as a content: no mutation finds its way there through a signature.
void readSignedContent(std::string_view bytes) {
    try {
        const auto content = SignedContent::parse(bytes);
        Fuzz::require(content.encoded() == bytes); // else there are two encodings of one content
    } catch (const std::runtime_error&) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    readSignedContent(bytes);
    try {
        const auto cms = readCms(bytes);
        (void)cms.certificate().subject();
        (void)cms.fileSignature(0);
        Fuzz::require(cms.data().der == bytes);
    } catch (const std::runtime_error&) {
    }
    return 0;
}
