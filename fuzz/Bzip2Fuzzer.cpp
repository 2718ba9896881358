#include "common/Error.h"
#include "common/rpm/Decompressor.h"

#include <algorithm>
#include <bzlib.h>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr std::size_t mostContent = std::size_t{1024} * 1024;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

std::string compressed(std::string content, int blockSize) {
    std::string stream(content.size() + content.size() / 100 + 600, '\0');
    auto size = static_cast<unsigned>(stream.size());
    require(BZ2_bzBuffToBuffCompress(stream.data(), &size, content.data(),
                                     static_cast<unsigned>(content.size()), blockSize, 0, 0) == BZ_OK);
    stream.resize(size);
    return stream;
}

/// What libbz2 makes of a stream; nothing when it takes it for damaged.
std::optional<std::string> asLibraryReads(std::string stream) {
    std::string content(mostContent, '\0');
    auto size = static_cast<unsigned>(content.size());
    const int result = BZ2_bzBuffToBuffDecompress(content.data(), &size, stream.data(),
                                                  static_cast<unsigned>(stream.size()), 0, 0);
    content.resize(result == BZ_OK ? size : 0);
    return result == BZ_OK ? std::optional(content) : std::nullopt;
}

std::optional<std::string> asRead(const std::string& stream) {
    Common::UniqueFd file(memfd_create("stream", MFD_CLOEXEC));
    require(write(file.get(), stream.data(), stream.size()) == static_cast<ssize_t>(stream.size()) &&
            lseek(file.get(), 0, SEEK_SET) == 0);
    const auto decompressor = Common::Rpm::bzip2Decompressor(std::move(file));
    std::string content;
    try {
        for (auto bytes = decompressor->next(); !bytes.empty(); bytes = decompressor->next()) {
            content.append(bytes.begin(), bytes.end());
            if (content.size() > mostContent) {
                return std::nullopt;
            }
        }
    } catch (const Common::Error& error) {
        require(error.code() == Common::ErrorCode::BadPackage);
        return std::nullopt;
    }
    return content;
}

} // namespace

/// Compresses the input, damages it as the input says, and compares with libbz2.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 5) {
        return 0;
    }
    const int blockSize = 1 + data[0] % 9;
    const std::size_t repetitions = data[1];
    const std::size_t place = data[2] * 256U + data[3];
    const std::uint8_t flips = data[4];
    std::string content;
    for (std::size_t count = 0; count <= repetitions && content.size() < mostContent / 4; ++count) {
        content.append(data + 5, data + size);
    }
    auto stream = compressed(content, blockSize);
    require(asRead(stream + "what follows") == content);
    stream[place % stream.size()] = static_cast<char>(stream[place % stream.size()] ^ flips);
    require(asRead(stream) == asLibraryReads(stream));
    return 0;
}
