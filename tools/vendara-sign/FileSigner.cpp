#include "tools/vendara-sign/FileSigner.h"

#include "common/rpm/FileList.h"
#include "platform/reference/signcms/Bytes.h"

#include <rpm/rpmcrypto.h>

#include <algorithm>
#include <array>
#include <set>
#include <sys/stat.h>

namespace Signing {

namespace OpenSsl = PackageSignatures::OpenSsl;
using OpenSsl::require;

namespace {

/// A digest algorithm in the numbering of rpm, the kernel and OpenSSL.
struct Algorithm {
    int rpm;
    char kernel; ///< enum hash_algo of linux/hash_info.h
    const EVP_MD* (*openSsl)();
};

constexpr Algorithm algorithms[] = {
    {RPM_HASH_SHA256, 4, EVP_sha256}, {RPM_HASH_SHA384, 5, EVP_sha384}, {RPM_HASH_SHA512, 6, EVP_sha512}};

struct FileDigest {
    const Algorithm* algorithm;
    std::string bytes;
};

FileDigest digestOf(const Common::Rpm::FileList& files, int index) {
    int number = 0;
    std::size_t size = 0;
    const auto* bytes = rpmfilesFDigest(files.get(), index, &number, &size);
    for (const auto& algorithm : algorithms) {
        if (bytes != nullptr && algorithm.rpm == number) {
            return {&algorithm, std::string(reinterpret_cast<const char*>(bytes), size)};
        }
    }
    throw std::runtime_error("file " + files.name(index) + " has no SHA-2 digest in the package");
}

/// The last four bytes of the SHA-1 of the public key, by which the kernel finds it in its keyring.
std::string kernelKeyId(const X509& certificate) {
    std::array<unsigned char, 20> digest{};
    require(X509_pubkey_digest(&certificate, EVP_sha1(), digest.data(), nullptr) == 1,
            "couldn't compute a key identifier");
    return {digest.end() - 4, digest.end()};
}

std::string withSize(std::string header, const std::string& signature) {
    PackageSignatures::appendNumber(header, static_cast<std::uint16_t>(signature.size()));
    return header + signature;
}

class FileSigner {
public:
    FileSigner(const X509& certificate, const PackageSignatures::DigestSigner& sign)
        : sign_(sign)
        , keyId_(kernelKeyId(certificate)) {}

    // struct signature_v2_hdr of the kernel's security/integrity: type 3 (a digital signature), version 2.
    [[nodiscard]] std::string integrity(const FileDigest& digest) const {
        return withSize(std::string("\x03\x02") + digest.algorithm->kernel + keyId_,
                        sign_(*digest.algorithm->openSsl(), digest.bytes));
    }

    // Signs a digest that is never that of a file, so that the two kinds of signatures cannot be exchanged.
    [[nodiscard]] std::string trustlet(const FileDigest& digest) const {
        const auto header = std::string("VNDT\x01") + digest.algorithm->kernel + keyId_;
        const auto outer = OpenSsl::sha256(header + digest.bytes);
        return withSize(header, sign_(*EVP_sha256(), std::string(outer.begin(), outer.end())));
    }

private:
    const PackageSignatures::DigestSigner& sign_;
    std::string keyId_;
};

bool isAtOrBelow(const std::string& name, const std::string& path) {
    return name.starts_with(path) &&
           (name.size() == path.size() || path.ends_with('/') || name[path.size()] == '/');
}

} // namespace

std::vector<PackageSignatures::FileSignatures> signFiles(const Common::Rpm::Reader& package,
                                                         const X509& certificate,
                                                         const PackageSignatures::DigestSigner& sign,
                                                         const std::vector<std::string>& trustlets) {
    const OpenSsl::ErrorMark mark;
    const Common::Rpm::FileList files(package.header());
    const FileSigner signer(certificate, sign);
    std::set<std::string> unused(trustlets.begin(), trustlets.end());
    std::vector<PackageSignatures::FileSignatures> signatures;
    for (int i = 0; i < files.size(); ++i) {
        const bool isInPayload = (rpmfilesFFlags(files.get(), i) & RPMFILE_GHOST) == 0;
        if (!isInPayload || !S_ISREG(rpmfilesFMode(files.get(), i))) {
            continue;
        }
        const auto digest = digestOf(files, i);
        auto& file = signatures.emplace_back();
        file.index = static_cast<std::uint32_t>(files.headerIndex(i));
        file.integrity = signer.integrity(digest);
        const auto name = files.name(i);
        for (const auto& path : trustlets) {
            if (isAtOrBelow(name, path)) {
                file.trustlet = signer.trustlet(digest);
                unused.erase(path);
            }
        }
    }
    if (!unused.empty()) {
        throw std::runtime_error("the package has no file at or below " + *unused.begin());
    }
    std::sort(signatures.begin(), signatures.end(),
              [](const auto& left, const auto& right) { return left.index < right.index; });
    return signatures;
}

} // namespace Signing
