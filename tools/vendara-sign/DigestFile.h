#pragma once

#include "platform/reference/signcms/OpenSsl.h"

#include <map>
#include <set>
#include <string>
#include <string_view>

namespace Signing {

/// For signers that take only digests: digests, and signatures that were made of them elsewhere. In the text
/// form a line is an algorithm (SHA256, SHA384 or SHA512), the digest and, once it is made, its signature:
/// RSA with PKCS #1 v1.5 padding. Digests and signatures are hexadecimal. Used by one thread.
class DigestFile {
public:
    /// Adds the signatures of a text; a line may have none. Throws std::runtime_error for any other text.
    void addSignatures(const std::string& text);

    /// The signature of a digest; empty when there is none, and then the digest is missing from now on.
    /// Throws std::runtime_error for a signature that was not made of the digest with the certificate's key.
    [[nodiscard]] std::string signatureOf(X509& certificate, const EVP_MD& algorithm,
                                          std::string_view digest);

    /// The lines of the digests that are missing.
    [[nodiscard]] const std::set<std::string>& missing() const { return missing_; }

private:
    std::map<std::string, std::string> signatures_; ///< by the line's beginning
    std::set<std::string> missing_;
};

} // namespace Signing
