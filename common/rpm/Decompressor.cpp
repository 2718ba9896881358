#include "common/rpm/Decompressor.h"

#include "common/Error.h"
#include "common/Files.h"

#include <cerrno>
#include <unistd.h>

namespace Common::Rpm {

std::size_t readCompressed(const UniqueFd& file, std::span<std::uint8_t> buffer) {
    std::size_t total = 0;
    while (total < buffer.size()) {
        const auto count = read(file.get(), buffer.data() + total, buffer.size() - total);
        if (count > 0) {
            total += static_cast<std::size_t>(count);
        } else if (count == 0) {
            break;
        } else if (errno != EINTR) {
            throw filesystemError("couldn't read payload of rpm package");
        }
    }
    return total;
}

void throwDamagedPayload() {
    throw Error(ErrorCode::BadPackage, "couldn't decompress payload of rpm package");
}

} // namespace Common::Rpm
