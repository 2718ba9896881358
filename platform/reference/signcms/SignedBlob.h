#pragma once

#include "platform/reference/signcms/OpenSsl.h"
#include "platform/reference/signcms/SignedContent.h"
#include "platform/signcms/PackageSignatures.h"

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace PackageSignatures {

/// Bytes that one CMS may have at most.
constexpr std::size_t maximumBlobSize = std::size_t{64} * 1024 * 1024;

/// Object identifiers of the roles' extended key usages (RFC 5280, 4.2.1.12), below an arc made from a UUID
/// (ITU-T X.667), which is unique.
constexpr const char* developerUsage = "2.25.112490579696948806193479369598998375359.1";
constexpr const char* clientUsage = "2.25.112490579696948806193479369598998375359.2";

/// What was read from one CMS.
struct CmsData {
    Certificate certificate;
    SignedContent content;
    std::string der;
};

/// Reads a CMS. Exactly one encoding is taken for a content, a certificate and a signature: the one that
/// makeCms() writes. So no byte of it can be changed without changing one of those three.
/// Throws std::runtime_error. Any thread.
[[nodiscard]] Cms readCms(std::string der);

/// The certificate that a CMS has. Throws std::runtime_error. Any thread.
[[nodiscard]] OpenSsl::Certificate x509Of(const Cms& cms);

/// Signs a digest with PKCS #1 v1.5 padding (RFC 8017, 8.2), for example as signDigest() does.
using DigestSigner = std::function<std::string(const EVP_MD& algorithm, std::string_view digest)>;

/// Signs a digest with a private RSA key. Throws std::runtime_error. Any thread.
[[nodiscard]] std::string signDigest(EVP_PKEY& key, const EVP_MD& algorithm, std::string_view digest);

/// Signs a content. The same key and content give the same bytes every time.
/// @param certificate  the signer's; its key is RSA with 2048 to 8192 bits
/// @param sign         signs with the private key that belongs to it; is called once
/// @return the CMS in DER
/// Throws std::runtime_error. Any thread.
[[nodiscard]] std::string makeCms(X509& certificate, const DigestSigner& sign, const SignedContent& content);
/// The same with the key.
[[nodiscard]] std::string makeCms(X509& certificate, EVP_PKEY& key, const SignedContent& content);

/// A distinguished name as RFC 2253 writes it, in UTF-8. Throws std::runtime_error.
[[nodiscard]] std::string textOf(const X509_NAME& name);

/// What is asked of a certificate, read from it; nothing is checked. Throws std::runtime_error.
[[nodiscard]] Certificate certificateOf(X509& certificate);

/// Throws std::runtime_error unless the key is RSA with 2048 to 8192 bits, which is all that may sign.
void checkIsStrongRsa(X509& certificate);

/// Throws std::runtime_error unless the certificate may sign packages in a role: an RSA key of 2048 to 8192
/// bits, the key usage digitalSignature, no authority, the extended key usage of exactly one role.
void checkMaySign(X509& certificate);

/// Those who may say which keys sign packages. Any thread.
class Authority {
public:
    /// @param path  PEM file: self-signed certificates that are trusted, and intermediate ones
    /// Throws std::runtime_error, whose text names the path.
    explicit Authority(const std::filesystem::path& path);

    /// Throws std::runtime_error, which says why, unless the CMS is made with its certificate's key, and the
    /// certificate chains to this authority, is valid now, and passes checkMaySign(). That it is made for a
    /// certain package is for the caller to compare.
    void verify(const Cms& cms) const;

private:
    void checkChain(X509& certificate) const;

    OpenSsl::Store store_;
};

} // namespace PackageSignatures
