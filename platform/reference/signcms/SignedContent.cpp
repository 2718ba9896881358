#include "platform/reference/signcms/SignedContent.h"

#include "platform/reference/signcms/Bytes.h"

#include <algorithm>
#include <stdexcept>

namespace PackageSignatures {

namespace {

constexpr std::string_view magic = "VNDSIGNC";
constexpr std::uint32_t version = 1;
constexpr std::uint32_t sha256 = 1;
constexpr std::size_t fileEntryHeaderSize = 8;

// Reading and writing have the same limits, so everything written can be read.
void checkFiles(const std::vector<FileSignatures>& files) {
    for (std::size_t i = 0; i < files.size(); ++i) {
        const auto& file = files[i];
        if (i > 0 && files[i - 1].index >= file.index) {
            throw std::runtime_error("file entries are not in ascending order");
        }
        if (std::max(file.integrity.size(), file.trustlet.size()) > SignedContent::maximumSignatureSize) {
            throw std::runtime_error("a file's signature is too large");
        }
        if (file.integrity.empty() && file.trustlet.empty()) {
            throw std::runtime_error("a file entry has no signatures");
        }
    }
}

void checkCount(std::size_t count) {
    if (count > SignedContent::maximumFiles) {
        throw std::runtime_error("signatures of more than " + std::to_string(SignedContent::maximumFiles) +
                                 " files");
    }
}

} // namespace

std::string SignedContent::encoded() const {
    checkCount(files.size());
    checkFiles(files);
    std::string bytes(magic);
    appendNumber(bytes, version);
    appendNumber(bytes, sha256);
    appendNumber(bytes, package.length);
    bytes.append(package.sha256.begin(), package.sha256.end());
    appendNumber(bytes, static_cast<std::uint32_t>(files.size()));
    for (const auto& file : files) {
        appendNumber(bytes, file.index);
        appendNumber(bytes, static_cast<std::uint16_t>(file.integrity.size()));
        appendNumber(bytes, static_cast<std::uint16_t>(file.trustlet.size()));
        bytes += file.integrity;
        bytes += file.trustlet;
    }
    return bytes;
}

SignedContent SignedContent::parse(std::string_view bytes) {
    ByteReader reader(bytes);
    reader.expect(magic, "magic");
    if (reader.number<std::uint32_t>() != version) {
        throw std::runtime_error("has an unknown version");
    }
    if (reader.number<std::uint32_t>() != sha256) {
        throw std::runtime_error("has an unknown digest algorithm");
    }
    SignedContent content;
    content.package.length = reader.number<std::uint64_t>();
    const auto digest = reader.bytes(content.package.sha256.size());
    std::copy(digest.begin(), digest.end(), content.package.sha256.begin());
    const auto count = reader.number<std::uint32_t>();
    checkCount(count);
    // The count is not verified: reserve no more than the bytes suffice for.
    content.files.reserve(std::min<std::size_t>(count, reader.left() / fileEntryHeaderSize));
    for (std::uint32_t i = 0; i < count; ++i) {
        FileSignatures file;
        file.index = reader.number<std::uint32_t>();
        const auto integritySize = reader.number<std::uint16_t>();
        const auto trustletSize = reader.number<std::uint16_t>();
        file.integrity = reader.bytes(integritySize);
        file.trustlet = reader.bytes(trustletSize);
        content.files.push_back(std::move(file));
    }
    if (reader.left() != 0) {
        throw std::runtime_error("has bytes after its last entry");
    }
    checkFiles(content.files);
    return content;
}

} // namespace PackageSignatures
