#include "common/Files.h"
#include "platform/reference/signcms/SignedBlob.h"

#include <boost/algorithm/hex.hpp>
#include <openssl/pem.h>

#include <iterator>

namespace PackageSignatures {

using OpenSsl::require;

namespace {

constexpr std::size_t maximumAuthorityFileSize = std::size_t{1024} * 1024;
constexpr int securityLevel = 2; // 112 bits: no SHA-1, no RSA key below 2048 bits

std::string sha256Hex(std::string_view bytes) {
    std::string text;
    boost::algorithm::hex_lower(OpenSsl::sha256(bytes), std::back_inserter(text));
    return text;
}

bool hasUsage(const EXTENDED_KEY_USAGE* usages, const char* oid) {
    const OpenSsl::ObjectId wanted(OBJ_txt2obj(oid, 1));
    require(wanted != nullptr, "out of memory");
    for (int i = 0; i < sk_ASN1_OBJECT_num(usages); ++i) {
        if (OBJ_cmp(sk_ASN1_OBJECT_value(usages, i), wanted.get()) == 0) {
            return true;
        }
    }
    return false;
}

std::optional<Role> roleOf(X509& certificate) {
    const OpenSsl::ExtendedKeyUsage usages(static_cast<EXTENDED_KEY_USAGE*>(
        X509_get_ext_d2i(&certificate, NID_ext_key_usage, nullptr, nullptr)));
    if (!usages) {
        return {};
    }
    const bool developer = hasUsage(usages.get(), developerUsage);
    const bool client = hasUsage(usages.get(), clientUsage);
    if (developer == client) {
        return {};
    }
    return developer ? Role::Developer : Role::Client;
}

// RSA with PKCS #1 v1.5 padding has exactly one valid signature of a content. DSA and ECDSA have several, so
// anyone could change the bytes of a signed file without the key.
bool isSignedWithRsa(const X509& certificate) {
    switch (X509_get_signature_nid(&certificate)) {
    case NID_sha256WithRSAEncryption:
    case NID_sha384WithRSAEncryption:
    case NID_sha512WithRSAEncryption:
        return true;
    default:
        return false;
    }
}

} // namespace

std::string textOf(const X509_NAME& name) {
    const OpenSsl::Bio text(BIO_new(BIO_s_mem()));
    // Characters beyond ASCII as themselves, in UTF-8.
    const auto flags = XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
    require(text && X509_NAME_print_ex(text.get(), &name, 0, flags) >= 0,
            "couldn't read a name of a certificate");
    return OpenSsl::contentOf(text.get());
}

Certificate certificateOf(X509& certificate) {
    const OpenSsl::ErrorMark mark;
    return {sha256Hex(OpenSsl::derOf<const X509_PUBKEY>(X509_get_X509_PUBKEY(&certificate), i2d_X509_PUBKEY)),
            textOf(*X509_get_subject_name(&certificate)), roleOf(certificate)};
}

void checkIsStrongRsa(X509& certificate) {
    const EVP_PKEY* key = X509_get0_pubkey(&certificate);
    require(key != nullptr && EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA && EVP_PKEY_get_bits(key) >= 2048 &&
                EVP_PKEY_get_bits(key) <= 8192,
            "certificate's key is not RSA with 2048 to 8192 bits");
}

void checkMaySign(X509& certificate) {
    const OpenSsl::ErrorMark mark;
    checkIsStrongRsa(certificate);
    const auto flags = X509_get_extension_flags(&certificate);
    require((flags & EXFLAG_INVALID) == 0, "certificate has an invalid extension");
    require((flags & EXFLAG_KUSAGE) != 0 && (X509_get_key_usage(&certificate) & KU_DIGITAL_SIGNATURE) != 0,
            "certificate's key usage does not include digital signatures");
    require((flags & EXFLAG_CA) == 0, "certificate is a CA certificate");
    require(roleOf(certificate).has_value(),
            "certificate's extended key usage does not have exactly one signer role");
}

Authority::Authority(const std::filesystem::path& path)
    : store_(X509_STORE_new()) {
    const OpenSsl::ErrorMark mark;
    const auto pem = Common::readExistingFile(path, maximumAuthorityFileSize);
    const auto source = OpenSsl::reading(pem);
    require(store_ != nullptr, "out of memory");
    int count = 0;
    while (
        const OpenSsl::Certificate certificate{PEM_read_bio_X509(source.get(), nullptr, nullptr, nullptr)}) {
        require(X509_STORE_add_cert(store_.get(), certificate.get()) == 1, "couldn't use a certificate");
        ++count;
    }
    // PEM_R_NO_START_LINE is the end of the file; any other error is a damaged certificate.
    const bool ended = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
    if (count == 0 || !ended) {
        throw std::runtime_error(path.string() + ": not a PEM file of certificates");
    }
}

void Authority::checkChain(X509& certificate) const {
    require(isSignedWithRsa(certificate), "certificate is not signed with RSA and SHA-2");
    const OpenSsl::StoreContext context(X509_STORE_CTX_new());
    require(context != nullptr &&
                X509_STORE_CTX_init(context.get(), store_.get(), &certificate, nullptr) == 1,
            "out of memory");
    X509_VERIFY_PARAM_set_auth_level(X509_STORE_CTX_get0_param(context.get()), securityLevel);
    if (X509_verify_cert(context.get()) != 1) {
        throw std::runtime_error(std::string("certificate: ") +
                                 X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get())));
    }
}

} // namespace PackageSignatures
