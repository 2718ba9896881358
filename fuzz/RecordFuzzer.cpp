#include "common/Error.h"
#include "core/zul/Record.h"
#include "fuzz/Require.h"

#include <cstddef>
#include <cstdint>
#include <string>

/// Parses records: any text is a record or CorruptedInstalledPackage.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        (void)Core::ZUL::parseRecord(std::string(data, data + size), "/record");
    } catch (const Common::Error& error) {
        Fuzz::require(error.code() == Common::ErrorCode::CorruptedInstalledPackage);
    }
    return 0;
}
