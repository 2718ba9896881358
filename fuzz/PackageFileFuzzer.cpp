#include "fuzz/ExtractionSandbox.h"

#include <cstdint>

/// Reads and unpacks whole package files: most inputs differ from a good package in the compressed payload,
/// for librpm refuses other headers.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Fuzz::ExtractionSandbox sandbox;
    const std::string_view package(reinterpret_cast<const char*>(data), size);
    sandbox.install(package);
    sandbox.unpack(package);
    return 0;
}
