#pragma once

#include "platform/reference/signcms/OpenSsl.h"

#include <filesystem>
#include <string>

namespace Signing {

/// Somebody who signs: a private key and the certificate that belongs to it.
struct Identity {
    PackageSignatures::OpenSsl::Key key;
    PackageSignatures::OpenSsl::Certificate certificate;
};

/// Reads an identity from PEM files; the key must not be encrypted.
/// Throws std::runtime_error, whose text names the path, also for a key that does not belong to the
/// certificate and for a certificate that may not sign packages.
[[nodiscard]] Identity loadIdentity(const std::filesystem::path& key,
                                    const std::filesystem::path& certificate);

/// Checks that a certificate is valid now. A device takes no signature of any other one.
/// Throws std::runtime_error with the day on which its time begins or has ended.
void requireValidNow(const X509& certificate);

/// In PEM. Both throw std::runtime_error when OpenSSL fails.
[[nodiscard]] std::string keyPem(const Identity& identity);
[[nodiscard]] std::string certificatePem(const Identity& identity);

} // namespace Signing
