#include "tools/vendara-sign/TestAuthority.h"

#include "common/Files.h"
#include "platform/reference/signcms/SignedBlob.h"

#include <openssl/rand.h>

#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <utility>
#include <vector>

namespace Signing {

namespace OpenSsl = PackageSignatures::OpenSsl;
using OpenSsl::require;

namespace {

constexpr std::time_t day = std::time_t{24} * 60 * 60;
constexpr unsigned int keyBits = 2048;

using Extension = OpenSsl::Owned<X509_EXTENSION, X509_EXTENSION_free>;
using Number = OpenSsl::Owned<BIGNUM, BN_free>;

void addExtension(X509& certificate, X509& issuer, int kind, const std::string& value) {
    if (value.empty()) {
        return;
    }
    X509V3_CTX context{};
    X509V3_set_ctx(&context, &issuer, &certificate, nullptr, nullptr, 0);
    const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
    require(extension && X509_add_ext(&certificate, extension.get(), -1) == 1,
            "couldn't make a certificate's extension");
}

void setSerialNumber(X509& certificate) {
    const Number number(BN_new());
    require(number && BN_rand(number.get(), 127, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1 &&
                BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(&certificate)) != nullptr,
            "couldn't make a serial number");
}

/// @param issuer  null: a self-signed certificate
Identity makeIdentity(const CertificateRequest& request, const Identity* issuer) {
    const OpenSsl::ErrorMark mark;
    Identity made{OpenSsl::Key(EVP_RSA_gen(keyBits)), OpenSsl::Certificate(X509_new())};
    auto* certificate = made.certificate.get();
    require(made.key && certificate != nullptr, "couldn't make a key");
    const auto& by = issuer != nullptr ? *issuer : made;
    setSerialNumber(*certificate);
    auto* subject = X509_get_subject_name(certificate);
    require(X509_set_version(certificate, X509_VERSION_3) == 1 &&
                X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, OpenSsl::octets(request.commonName),
                                           static_cast<int>(request.commonName.size()), -1, 0) == 1 &&
                X509_set_issuer_name(certificate, X509_get_subject_name(by.certificate.get())) == 1 &&
                ASN1_TIME_set(X509_getm_notBefore(certificate), request.validity.notBefore) != nullptr &&
                ASN1_TIME_set(X509_getm_notAfter(certificate), request.validity.notAfter) != nullptr &&
                X509_set_pubkey(certificate, made.key.get()) == 1,
            "couldn't make a certificate");
    addExtension(*certificate, *by.certificate, NID_basic_constraints, request.basicConstraints);
    addExtension(*certificate, *by.certificate, NID_key_usage, request.keyUsage);
    addExtension(*certificate, *by.certificate, NID_ext_key_usage, request.extendedKeyUsage);
    addExtension(*certificate, *by.certificate, NID_subject_key_identifier, "hash");
    addExtension(*certificate, *by.certificate, NID_authority_key_identifier, "keyid");
    require(X509_sign(certificate, by.key.get(), EVP_sha256()) > 0, "couldn't sign a certificate");
    return made;
}

/// Creates files and directories; removes them on destruction unless keep() was called.
class NewFiles {
public:
    NewFiles() = default;
    ~NewFiles() {
        std::error_code ignored;
        for (; !made_.empty(); made_.pop_back()) {
            std::filesystem::remove(made_.back(), ignored);
        }
    }
    NewFiles(const NewFiles&) = delete;
    NewFiles& operator=(const NewFiles&) = delete;

    void makeDirectories(const std::filesystem::path& directory) {
        if (directory.has_parent_path() && !std::filesystem::exists(directory)) {
            makeDirectories(directory.parent_path());
        }
        if (std::filesystem::create_directory(directory)) {
            made_.push_back(directory);
        }
    }

    void write(const std::filesystem::path& path, std::string_view content) {
        const bool isSecret = path.extension() == ".key";
        const Common::UniqueFd file(
            open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, isSecret ? 0600 : 0644));
        if (!file) {
            throw std::system_error(errno, std::generic_category(), path.string());
        }
        made_.push_back(path);
        Common::writeAll(file.get(), content, path);
    }

    void keep() { made_.clear(); }

private:
    std::vector<std::filesystem::path> made_;
};

} // namespace

Validity Validity::usual() {
    const auto now = std::time(nullptr);
    return {now - day, now + 3650 * day};
}

TestAuthority::TestAuthority()
    : identity_(makeIdentity({.commonName = "Test package authority",
                              .keyUsage = "critical,keyCertSign,cRLSign",
                              .basicConstraints = "critical,CA:TRUE"},
                             nullptr)) {}

Identity TestAuthority::issue(const CertificateRequest& request) const {
    return makeIdentity(request, &identity_);
}

void makeTestAuthority(const std::filesystem::path& directory, const Validity& validity) {
    const auto critical = [](const char* usage) { return std::string("critical,") + usage; };
    const auto developerUsage = critical(PackageSignatures::developerUsage);
    const auto clientUsage = critical(PackageSignatures::clientUsage);
    const TestAuthority authority;
    std::vector<std::pair<std::string, std::string>> files;
    const auto add = [&files](const std::string& name, const Identity& identity) {
        files.emplace_back(name + ".key", keyPem(identity));
        files.emplace_back(name + ".pem", certificatePem(identity));
    };
    const auto issue = [&](const char* commonName, const std::string& usage) {
        return authority.issue({.commonName = commonName, .extendedKeyUsage = usage, .validity = validity});
    };
    const auto systemDeveloper = issue("Test system developer", developerUsage);
    add("developer", issue("Test developer", developerUsage));
    add("client", issue("Test client", clientUsage));
    add("system-developer", systemDeveloper);
    files.emplace_back("system-developer-keyid",
                       PackageSignatures::certificateOf(*systemDeveloper.certificate).keyId() + "\n");
    // Last: if its certificate exists, all files exist.
    add("ca", authority.identity());
    NewFiles made;
    made.makeDirectories(directory);
    for (const auto& [name, content] : files) {
        if (std::filesystem::exists(std::filesystem::symlink_status(directory / name))) {
            throw std::system_error(EEXIST, std::generic_category(), (directory / name).string());
        }
    }
    for (const auto& [name, content] : files) {
        made.write(directory / name, content);
    }
    made.keep();
}

} // namespace Signing
