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
    PackageSignatures::OpenSsl::Key key; ///< none: it signs elsewhere, see DigestFile
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

/// A passphrase or a PIN. A vector, for a string keeps short texts within itself.
using Secret = std::vector<char, WipingAllocator<char>>;

/// Gives the passphrase of a file, or the PIN of a token; nothing when there is none. Throws nothing.
using Passphrase = std::function<std::optional<Secret>(const std::string& source)>;

/// Reads an identity by OpenSSL's OSSL_STORE: from files in PEM, DER or PKCS #12, or from a token that a
/// provider of OpenSSL's configuration opens.
/// @param key          path or "pkcs11:" URI (RFC 7512); empty: the identity has no key
/// @param certificate  likewise; empty: it is where the key is
/// @param passphrase   is asked where something is encrypted
/// Throws std::runtime_error, whose text names the source, also for a key that does not belong to the
/// certificate and for a certificate that may not sign packages.
[[nodiscard]] Identity loadIdentity(const std::string& key, const std::string& certificate,
                                    const Passphrase& passphrase = {});

/// A key or certificate source for messages: of a "pkcs11:" URI what comes before its query, which may have
/// a PIN.
[[nodiscard]] std::string shown(const std::string& source);

/// A time as "YYYY-MM-DDThh:mm:ssZ".
[[nodiscard]] std::string textOf(const ASN1_TIME& time);

/// Checks that a certificate is valid now. A device takes no signature of any other one.
/// Throws std::runtime_error with the day on which its time begins or has ended.
void requireValidNow(const X509& certificate);

/// In PEM. Both throw std::runtime_error when OpenSSL fails.
[[nodiscard]] std::string keyPem(const Identity& identity);
[[nodiscard]] std::string certificatePem(const Identity& identity);

} // namespace Signing
