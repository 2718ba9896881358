#include "common/Error.h"
#include "core/zul/Record.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

/// Reads texts as package records: whatever is none is a damaged installation, and nothing else.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        (void)Core::ZUL::parseRecord(std::string(data, data + size), "/record");
    } catch (const Common::Error& error) {
        if (error.code() != Common::ErrorCode::CorruptedInstalledPackage) {
            std::abort();
        }
    }
    return 0;
}
