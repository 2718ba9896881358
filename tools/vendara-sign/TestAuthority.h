#pragma once

#include "tools/vendara-sign/Identity.h"

#include <ctime>
#include <filesystem>
#include <string>

namespace Signing {

struct Validity {
    std::time_t notBefore;
    std::time_t notAfter;

    /// From one day ago for ten years.
    static Validity usual();
};

/// The fields of a certificate to be made. Extension values have the format of x509v3_config(5); an empty one
/// is omitted.
struct CertificateRequest {
    std::string commonName = "Test";
    std::string extendedKeyUsage{};
    std::string keyUsage = "critical,digitalSignature";
    std::string basicConstraints = "critical,CA:FALSE";
    Validity validity = Validity::usual();
};

/// An authority for tests, with a new key. Used by one thread.
class TestAuthority {
public:
    /// Throws std::runtime_error, as issue() does.
    TestAuthority();

    /// Makes a key and a certificate.
    [[nodiscard]] Identity issue(const CertificateRequest& request) const;

    [[nodiscard]] const Identity& identity() const { return identity_; }

private:
    Identity identity_;
};

/// Makes an authority, a developer, a client and a system developer, each as NAME.key (readable by the owner
/// only) and NAME.pem, and the file "system-developer-keyid"; "ca.pem" is written last. Never overwrites: if
/// one of the files exists, none is made. Removes the new files after a failure.
/// @param directory  created if missing
/// @param validity   of all certificates except the authority's, which has Validity::usual()
/// Throws std::exception, whose text names the path.
void makeTestAuthority(const std::filesystem::path& directory, const Validity& validity);

} // namespace Signing
