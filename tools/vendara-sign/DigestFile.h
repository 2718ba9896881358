#pragma once

#include "platform/reference/signcms/OpenSsl.h"

#include <map>
#include <set>
#include <string>
#include <string_view>

namespace Signing {

/// Digests and their signatures, for external signers that sign only digests. Each line of the file has an
/// algorithm (SHA256, SHA384 or SHA512), the digest and, if it is signed, the signature: RSA with PKCS #1
/// v1.5 padding. Digests and signatures are hexadecimal. Used by one thread.
class DigestFile {
public:
    /// Adds the signatures in a file's content; a line may have none. Throws std::runtime_error for any other
    /// content.
    void addSignatures(const std::string& text);

    /// The signature of a digest; empty if there is none, and the digest is then added to missing().
    /// Throws std::runtime_error for a signature that was not made of the digest with the certificate's key.
    [[nodiscard]] std::string signatureOf(X509& certificate, const EVP_MD& algorithm,
                                          std::string_view digest);

    /// The lines of the digests without a signature.
    [[nodiscard]] const std::set<std::string>& missing() const { return missing_; }

private:
    std::map<std::string, std::string> signatures_; ///< by algorithm and digest, as in the file
    std::set<std::string> missing_;
};

} // namespace Signing
