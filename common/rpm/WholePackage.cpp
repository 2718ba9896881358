#include "common/rpm/WholePackage.h"

#include "common/Error.h"
#include "common/Files.h"
#include "common/rpm/PackageLayout.h"

#include <rpm/header.h>
#include <rpm/rpmcrypto.h>
#include <rpm/rpmtd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <endian.h>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

namespace Common::Rpm {

namespace {

constexpr std::size_t pieceSize = std::size_t{256} * 1024;

[[noreturn]] void refuse(const char* message) { throw Error(ErrorCode::BadPackage, message); }

int descriptorOf(const Reader& reader) { return reader.file() != nullptr ? Fileno(reader.file()) : -1; }

PackageLayout layoutOf(const Reader& reader) {
    const auto layout = readPackageLayout(descriptorOf(reader));
    if (!layout || !layout->endOffset || *layout->endOffset < layout->payloadOffset) {
        refuse("the rpm package's header has no size");
    }
    return *layout;
}

/// Whether a decompressor would read the data at the offset as a part of the payload: a further gzip member
/// or Zstandard frame, also after skippable frames, which may contain signatures.
bool continuesPayload(int file, std::uint64_t offset) {
    constexpr std::array<std::uint8_t, 2> gzip{0x1f, 0x8b};
    // Libraries built with support for older formats also decompress their frames.
    constexpr std::uint32_t oldestFrame = 0xfd2fb522;
    constexpr std::uint32_t frame = 0xfd2fb528;
    constexpr std::uint32_t skippableFrame = 0x184d2a50; // the last four bits are free
    constexpr int mostSkipped = 16;
    for (int skipped = 0; skipped < mostSkipped; ++skipped) {
        std::array<std::uint8_t, 8> start{};
        if (!readAll(file, std::as_writable_bytes(std::span(start)), offset)) {
            throw filesystemError("couldn't read rpm package");
        }
        const auto numberAt = [&start](std::size_t place) {
            std::uint32_t number = 0;
            std::memcpy(&number, &start[place], sizeof number);
            return le32toh(number);
        };
        if (std::equal(gzip.begin(), gzip.end(), start.begin()) ||
            (numberAt(0) >= oldestFrame && numberAt(0) <= frame)) {
            return true;
        }
        if ((numberAt(0) & ~0xfU) != skippableFrame) {
            return false;
        }
        offset += start.size() + numberAt(4);
    }
    return true;
}

void freeContext(DIGEST_CTX context) { rpmDigestFinal(context, nullptr, nullptr, 0); }

/// The digest, in hexadecimal, of the bytes from start to end or to the end of the file.
std::string digestOf(int file, std::uint64_t start, std::uint64_t end, int algorithm,
                     const ReadingProgress& progress) {
    std::unique_ptr<std::remove_pointer_t<DIGEST_CTX>, void (*)(DIGEST_CTX)> context(
        rpmDigestInit(algorithm, RPMDIGEST_NONE), freeContext);
    if (!context) {
        refuse("the payload digest of the rpm package has an unknown algorithm");
    }
    std::vector<std::byte> piece(pieceSize);
    while (start < end) {
        const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), end - start));
        const auto count = readAll(file, std::span(piece).first(wanted), start);
        if (!count) {
            throw filesystemError("couldn't read rpm package");
        }
        rpmDigestUpdate(context.get(), piece.data(), *count);
        start += wanted;
        if (progress) {
            progress(start);
        }
    }
    void* text = nullptr;
    rpmDigestFinal(context.release(), &text, nullptr, 1);
    const std::unique_ptr<char, void (*)(void*)> owner(static_cast<char*>(text), std::free);
    return owner ? owner.get() : "";
}

} // namespace

std::uint64_t packageLength(const Reader& reader) {
    if (headerIsSource(reader.header()) != 0) {
        refuse("the package is a source package");
    }
    const auto layout = layoutOf(reader);
    if (*layout.endOffset > sizeOf(descriptorOf(reader))) {
        refuse("the rpm package is truncated");
    }
    if (continuesPayload(descriptorOf(reader), *layout.endOffset)) {
        refuse("the payload of the rpm package continues after its end");
    }
    return *layout.endOffset;
}

void requirePayloadDigest(const Reader& reader, const ReadingProgress& progress) {
    const auto end = packageLength(reader);
    rpmtd_s expected{};
    if (headerGet(reader.header(), RPMTAG_PAYLOADDIGEST, &expected, HEADERGET_MINMEM) == 0) {
        return;
    }
    const char* first = rpmtdNextString(&expected);
    const std::string text = first != nullptr ? first : "";
    rpmtdFreeData(&expected);
    const auto algorithm = static_cast<int>(headerGetNumber(reader.header(), RPMTAG_PAYLOADDIGESTALGO));
    if (text.empty() ||
        digestOf(descriptorOf(reader), layoutOf(reader).payloadOffset, end, algorithm, progress) != text) {
        refuse("the payload of the rpm package does not match its digest");
    }
}

void requireWholePackage(const Reader& reader, std::uint64_t length, const ReadingProgress& progress) {
    if (packageLength(reader) != length) {
        refuse("the rpm package has data after its end");
    }
    requirePayloadDigest(reader, progress);
}

} // namespace Common::Rpm
