#pragma once

#include "tools/vendara-sign/Identity.h"

#include <ctime>
#include <filesystem>
#include <string>

namespace Signing {

struct Validity {
    std::time_t notBefore;
    std::time_t notAfter;

    /// From a day ago to ten years from now.
    static Validity usual();
};

/// What a certificate is to say. Extension values as x509v3_config(5) writes them; an empty one is left out.
struct CertificateRequest {
    std::string commonName = "Test";
    std::string extendedKeyUsage{};
    std::string keyUsage = "critical,digitalSignature";
    std::string basicConstraints = "critical,CA:FALSE";
    Validity validity = Validity::usual();
};

/// An authority for tests, with a key that is made with it. Used by one thread.
class TestAuthority {
public:
    /// Throws std::runtime_error, as issue() does.
    TestAuthority();

    /// Makes a key and certifies it.
    [[nodiscard]] Identity issue(const CertificateRequest& request) const;

    [[nodiscard]] const Identity& identity() const { return identity_; }

private:
    Identity identity_;
};

/// Makes an authority, a developer, a client and a system developer, each as NAME.key (readable by the owner
/// only) and NAME.pem, and the file "system-developer-keyid"; "ca.pem" comes last. Never overwrites: where
/// one of the files is there already, none is made. What a run that fails has made it removes.
/// @param directory  made if missing
/// @param validity   of all certificates but the authority's, which is usual
/// Throws std::exception, whose text names the path.
void makeTestAuthority(const std::filesystem::path& directory, const Validity& validity);

} // namespace Signing
