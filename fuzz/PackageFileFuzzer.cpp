#include "fuzz/ExtractionSandbox.h"

#include <cstdint>
#include <fstream>

/// Reads and unpacks whole package files: most inputs differ from a good package in the compressed payload,
/// for librpm refuses other headers.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Fuzz::ExtractionSandbox sandbox;
    std::ofstream(sandbox.package(), std::ios::binary) << std::string(data, data + size);
    sandbox.tryOut();
    return 0;
}
