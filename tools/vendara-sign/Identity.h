#pragma once

#include "platform/reference/signcms/OpenSsl.h"

#include <openssl/crypto.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Signing {

/// A signer: a certificate and the private key that belongs to it.
struct Identity {
    PackageSignatures::OpenSsl::Key key; ///< null: an external signer has it, see DigestFile
    PackageSignatures::OpenSsl::Certificate certificate;
};

/// Wipes memory when it is freed.
template<typename Value>
struct WipingAllocator : std::allocator<Value> {
    void deallocate(Value* values, std::size_t count) {
        OPENSSL_cleanse(values, count * sizeof(Value));
        std::allocator<Value>::deallocate(values, count);
    }
};

/// A passphrase or a PIN. Not a string, because a short string is stored without the allocator.
using Secret = std::vector<char, WipingAllocator<char>>;

/// Returns the passphrase of a file, or the PIN of a token; nothing if there is none. Must not throw.
using Passphrase = std::function<std::optional<Secret>(const std::string& source)>;

/// Reads an identity by OpenSSL's OSSL_STORE: from files in PEM, DER or PKCS #12, or from a token through a
/// provider in OpenSSL's configuration.
/// @param key          path or "pkcs11:" URI (RFC 7512); empty: the identity has no key
/// @param certificate  path or URI; empty: in the file or token of the key
/// @param passphrase   called for an encrypted file or a token
/// Throws std::runtime_error, whose text names the source, also for a key that does not match the certificate
/// and for a certificate that may not sign packages.
[[nodiscard]] Identity loadIdentity(const std::string& key, const std::string& certificate,
                                    const Passphrase& passphrase = {});

/// A key or certificate source for messages: a "pkcs11:" URI without its query, which may have a PIN.
[[nodiscard]] std::string withoutQuery(const std::string& source);

/// A time as "YYYY-MM-DDThh:mm:ssZ".
[[nodiscard]] std::string textOf(const ASN1_TIME& time);

/// Checks that a certificate is valid now; devices reject signatures of other certificates.
/// Throws std::runtime_error with the day on which the certificate becomes valid or has expired.
void requireValidNow(const X509& certificate);

/// The key and the certificate in PEM. Both functions throw std::runtime_error when OpenSSL fails.
[[nodiscard]] std::string keyPem(const Identity& identity);
[[nodiscard]] std::string certificatePem(const Identity& identity);

} // namespace Signing
