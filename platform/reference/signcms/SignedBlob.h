#pragma once

#include "platform/reference/signcms/OpenSsl.h"
#include "platform/reference/signcms/SignedContent.h"
#include "platform/signcms/PackageSignatures.h"

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace PackageSignatures {

/// Maximum size of a CMS in bytes.
constexpr std::size_t maximumBlobSize = std::size_t{64} * 1024 * 1024;

/// Object identifiers of the roles' extended key usages (RFC 5280, 4.2.1.12). Their arc is derived from a
/// UUID (ITU-T X.667), so it is unique.
constexpr const char* developerUsage = "2.25.112490579696948806193479369598998375359.1";
constexpr const char* clientUsage = "2.25.112490579696948806193479369598998375359.2";

/// The parsed content of a CMS.
struct CmsData {
    Certificate certificate;
    SignedContent content;
    std::string der;
};

/// Reads a CMS. Only the encoding that makeCms() writes is accepted, so every changed byte changes the
/// content, the certificate or the signature. Throws std::runtime_error. Any thread.
[[nodiscard]] Cms readCms(std::string der);

/// The certificate in a CMS. Throws std::runtime_error. Any thread.
[[nodiscard]] OpenSsl::Certificate x509Of(const Cms& cms);

/// Signs a digest with PKCS #1 v1.5 padding (RFC 8017, 8.2), for example as signDigest() does.
using DigestSigner = std::function<std::string(const EVP_MD& algorithm, std::string_view digest)>;

/// Signs a digest with a private RSA key. Throws std::runtime_error. Any thread.
[[nodiscard]] std::string signDigest(EVP_PKEY& key, const EVP_MD& algorithm, std::string_view digest);

/// Makes a CMS. The same key and content always give the same bytes.
/// @param certificate  the signer's; its key is RSA with 2048 to 8192 bits
/// @param sign         signs with the certificate's private key; called once
/// @return the CMS in DER
/// Throws std::runtime_error. Any thread.
[[nodiscard]] std::string makeCms(X509& certificate, const DigestSigner& sign, const SignedContent& content);
/// The same with the private key.
[[nodiscard]] std::string makeCms(X509& certificate, EVP_PKEY& key, const SignedContent& content);

/// A distinguished name in the format of RFC 2253, in UTF-8. Throws std::runtime_error.
[[nodiscard]] std::string textOf(const X509_NAME& name);

/// Reads the properties of a certificate without checking them. Throws std::runtime_error.
[[nodiscard]] Certificate certificateOf(X509& certificate);

/// Throws std::runtime_error unless the key is RSA with 2048 to 8192 bits, as required of all signers.
void checkIsStrongRsa(X509& certificate);

/// Throws std::runtime_error unless the certificate may sign packages: an RSA key of 2048 to 8192 bits, the
/// key usage digitalSignature, not a CA certificate, the extended key usage of exactly one role.
void checkMaySign(X509& certificate);

/// The trusted certificates that certify signers. Any thread.
class Authority {
public:
    /// @param path  PEM file: self-signed certificates that are trusted, and intermediate ones
    /// Throws std::runtime_error, whose text names the path.
    explicit Authority(const std::filesystem::path& path);

    /// Throws std::runtime_error with the reason unless the CMS is made with its certificate's key, and the
    /// certificate chains to this authority, is valid now, and passes checkMaySign(). The caller compares the
    /// digest in the CMS with the package.
    void verify(const Cms& cms) const;

private:
    void checkChain(X509& certificate) const;

    OpenSsl::Store store_;
};

} // namespace PackageSignatures
