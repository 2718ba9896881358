#include "common/Error.h"
#include "core/zul/Record.h"
#include "fuzz/Require.h"

#include <cstddef>
#include <cstdint>
#include <string>

/// Reads texts as package records: whatever is none is a damaged installation, and nothing else.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        (void)Core::ZUL::parseRecord(std::string(data, data + size), "/record");
    } catch (const Common::Error& error) {
        Fuzz::require(error.code() == Common::ErrorCode::CorruptedInstalledPackage);
    }
    return 0;
}
