#include "common/rpm/Decompressor.h"

#include "common/Error.h"
#include "common/Files.h"

namespace Common::Rpm {

std::size_t readCompressed(const UniqueFd& file, std::span<std::uint8_t> buffer) {
    const auto count = readAll(file.get(), std::as_writable_bytes(buffer));
    if (!count) {
        throw filesystemError("couldn't read payload of rpm package");
    }
    return *count;
}

void throwDamagedPayload() {
    throw Error(ErrorCode::BadPackage, "couldn't decompress payload of rpm package");
}

} // namespace Common::Rpm
