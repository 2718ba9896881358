#include "tools/vendara-sign/Identity.h"

#include "common/Files.h"
#include "platform/reference/signcms/SignedBlob.h"

#include <openssl/pem.h>

#include <ctime>
#include <iomanip>
#include <sstream>

namespace Signing {

namespace OpenSsl = PackageSignatures::OpenSsl;

namespace {

constexpr std::size_t maximumPemSize = std::size_t{1024} * 1024;

// Instead of OpenSSL's own, which would ask at the terminal.
int noPassphrase(char*, int, int, void*) { return -1; }

} // namespace

Identity loadIdentity(const std::filesystem::path& key, const std::filesystem::path& certificate) {
    const OpenSsl::ErrorMark mark;
    Identity identity;
    const auto keyText = Common::readExistingFile(key, maximumPemSize);
    identity.key.reset(
        PEM_read_bio_PrivateKey(OpenSsl::reading(keyText).get(), nullptr, noPassphrase, nullptr));
    if (!identity.key) {
        throw std::runtime_error(key.string() + ": not a PEM file with an unencrypted private key");
    }
    const auto certificateText = Common::readExistingFile(certificate, maximumPemSize);
    identity.certificate.reset(
        PEM_read_bio_X509(OpenSsl::reading(certificateText).get(), nullptr, nullptr, nullptr));
    if (!identity.certificate) {
        throw std::runtime_error(certificate.string() + ": not a PEM file with a certificate");
    }
    if (X509_check_private_key(identity.certificate.get(), identity.key.get()) != 1) {
        throw std::runtime_error(key.string() + ": does not belong to the certificate " +
                                 certificate.string());
    }
    try {
        PackageSignatures::checkMaySign(*identity.certificate);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(certificate.string() + ": " + error.what());
    }
    return identity;
}

void requireValidNow(const X509& certificate) {
    const auto require = [](bool condition, const std::string& problem, const ASN1_TIME* time) {
        std::tm fields{};
        if (!condition) {
            ASN1_TIME_to_tm(time, &fields);
            std::ostringstream day;
            day << std::put_time(&fields, "%Y-%m-%d");
            throw std::runtime_error(problem + day.str());
        }
    };
    const auto* begin = X509_get0_notBefore(&certificate);
    const auto* end = X509_get0_notAfter(&certificate);
    require(X509_cmp_current_time(begin) < 0, "certificate is not valid before ", begin);
    require(X509_cmp_current_time(end) > 0, "certificate has expired on ", end);
}

std::string keyPem(const Identity& identity) {
    const OpenSsl::Bio text(BIO_new(BIO_s_mem()));
    OpenSsl::require(text && PEM_write_bio_PrivateKey(text.get(), identity.key.get(), nullptr, nullptr, 0,
                                                      nullptr, nullptr) == 1,
                     "couldn't write a key");
    return OpenSsl::contentOf(text.get());
}

std::string certificatePem(const Identity& identity) {
    const OpenSsl::Bio text(BIO_new(BIO_s_mem()));
    OpenSsl::require(text && PEM_write_bio_X509(text.get(), identity.certificate.get()) == 1,
                     "couldn't write a certificate");
    return OpenSsl::contentOf(text.get());
}

} // namespace Signing
