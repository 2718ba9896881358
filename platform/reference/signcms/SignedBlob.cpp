#include "platform/reference/signcms/SignedBlob.h"

#include "platform/reference/signcms/Bytes.h"

#include <cstdint>
#include <utility>

namespace PackageSignatures {

using OpenSsl::require;

namespace {

// No signed attributes: the signature is over the content itself, whose magic distinguishes it from other
// data signed with the same key. RFC 5652, 5.3 then requires the type id-data.
constexpr unsigned int signingFlags = CMS_BINARY | CMS_NOATTR | CMS_PARTIAL;

/// A CMS with one signer and its certificate, without content and signature.
/// @param key  the certificate's; the public half is enough
OpenSsl::Cms unsignedCms(X509& certificate, EVP_PKEY& key) {
    OpenSsl::Cms cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, signingFlags));
    require(cms != nullptr &&
                CMS_add1_signer(cms.get(), &certificate, &key, EVP_sha256(), signingFlags) != nullptr,
            "couldn't make a CMS for the certificate");
    return cms;
}

CMS_SignerInfo& onlySignerOf(CMS_ContentInfo& cms) {
    STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(&cms);
    require(signers != nullptr && sk_CMS_SignerInfo_num(signers) == 1,
            "CMS does not have exactly one signer");
    return *sk_CMS_SignerInfo_value(signers, 0);
}

/// The one encoding of a CMS with this content and signature.
std::string encodedCms(X509& certificate, std::string_view content, std::string_view signature) {
    const auto cms = unsignedCms(certificate, *X509_get0_pubkey(&certificate));
    ASN1_OCTET_STRING** place = CMS_get0_content(cms.get());
    OpenSsl::OctetString copy(ASN1_OCTET_STRING_new());
    require(place != nullptr && copy != nullptr && content.size() <= maximumBlobSize &&
                ASN1_OCTET_STRING_set(copy.get(), OpenSsl::octets(content),
                                      static_cast<int>(content.size())) == 1 &&
                ASN1_STRING_set(CMS_SignerInfo_get0_signature(&onlySignerOf(*cms)), signature.data(),
                                static_cast<int>(signature.size())) == 1,
            "couldn't make a CMS");
    ASN1_OCTET_STRING_free(*place);
    *place = copy.release();
    return OpenSsl::derOf<const CMS_ContentInfo>(cms.get(), i2d_CMS_ContentInfo);
}

std::string_view bytesOf(const ASN1_OCTET_STRING& text) {
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(&text)),
            static_cast<std::size_t>(ASN1_STRING_length(&text))};
}

/// The octets of the next DER element (ITU-T X.690, 8.1), which has this tag and no more of them than that.
std::string_view element(ByteReader& reader, std::uint8_t tag, std::size_t limit = maximumBlobSize) {
    require(reader.number<std::uint8_t>() == tag, "CMS does not have the one allowed form");
    std::size_t size = reader.number<std::uint8_t>();
    if (size >= 0x80) {
        auto sizeOctets = size - 0x80;
        require(sizeOctets >= 1 && sizeOctets <= 4, "CMS has an element without a usable length");
        for (size = 0; sizeOctets > 0; --sizeOctets) {
            size = (size << 8) | reader.number<std::uint8_t>();
        }
    }
    require(size <= limit, "CMS has an element that is too large");
    return reader.bytes(size);
}

/// Throws std::runtime_error unless a CMS (RFC 5652, 5.1) is of few elements: its signature is not verified
/// yet, and OpenSSL spends many times their size on small ones. Only the content, one octet string, may be
/// large.
void checkIsOfFewElements(std::string_view der) {
    constexpr std::uint8_t integer = 0x02;
    constexpr std::uint8_t octetString = 0x04;
    constexpr std::uint8_t objectId = 0x06;
    constexpr std::uint8_t sequence = 0x30;
    constexpr std::uint8_t set = 0x31;
    constexpr std::uint8_t tagged = 0xA0;

    ByteReader whole(der);
    ByteReader contentInfo(element(whole, sequence));
    element(contentInfo, objectId, 16);
    ByteReader holder(element(contentInfo, tagged));
    ByteReader signedData(element(holder, sequence));
    element(signedData, integer, 1);
    element(signedData, set, 32); // digest algorithms
    ByteReader encapsulated(element(signedData, sequence));
    element(encapsulated, objectId, 16);
    ByteReader content(element(encapsulated, tagged));
    element(content, octetString);
    element(signedData, tagged, std::size_t{64} * 1024); // certificates; revocation lists would come next
    element(signedData, set, std::size_t{16} * 1024);    // signers
    for (const auto* reader : {&whole, &contentInfo, &holder, &signedData, &encapsulated, &content}) {
        require(reader->left() == 0, "CMS has elements that do not belong there");
    }
}

OpenSsl::Cms decoded(std::string_view der) {
    require(der.size() <= maximumBlobSize, "CMS is too large");
    checkIsOfFewElements(der);
    const unsigned char* position = OpenSsl::octets(der);
    OpenSsl::Cms cms(d2i_CMS_ContentInfo(nullptr, &position, static_cast<long>(der.size())));
    require(cms != nullptr && OBJ_obj2nid(CMS_get0_type(cms.get())) == NID_pkcs7_signed,
            "CMS is not signed data");
    return cms;
}

OpenSsl::Certificate onlyCertificateOf(CMS_ContentInfo& cms) {
    const OpenSsl::CertificateStack certificates(CMS_get1_certs(&cms));
    require(certificates != nullptr && sk_X509_num(certificates.get()) == 1,
            "CMS does not have exactly one certificate");
    return OpenSsl::Certificate(sk_X509_shift(certificates.get()));
}

} // namespace

Cms readCms(std::string der) {
    const OpenSsl::ErrorMark mark;
    const auto cms = decoded(der);
    const auto certificate = onlyCertificateOf(*cms);
    checkIsStrongRsa(*certificate);
    ASN1_OCTET_STRING** content = CMS_get0_content(cms.get());
    require(content != nullptr && *content != nullptr, "CMS has no content");
    const auto bytes = bytesOf(**content);
    // Detects all changes that another encoding allows or that the signature does not cover.
    require(encodedCms(*certificate, bytes, bytesOf(*CMS_SignerInfo_get0_signature(&onlySignerOf(*cms)))) ==
                der,
            "CMS is not in its one allowed encoding");
    return Cms(std::make_shared<const CmsData>(
        CmsData{certificateOf(*certificate), SignedContent::parse(bytes), std::move(der)}));
}

OpenSsl::Certificate x509Of(const Cms& cms) {
    const OpenSsl::ErrorMark mark;
    return onlyCertificateOf(*decoded(cms.data().der));
}

std::string signDigest(EVP_PKEY& key, const EVP_MD& algorithm, std::string_view digest) {
    const OpenSsl::ErrorMark mark;
    const OpenSsl::KeyContext context(EVP_PKEY_CTX_new(&key, nullptr));
    std::string signature(static_cast<std::size_t>(EVP_PKEY_get_size(&key)), '\0');
    auto size = signature.size();
    require(context && EVP_PKEY_sign_init(context.get()) == 1 &&
                EVP_PKEY_CTX_set_signature_md(context.get(), &algorithm) == 1 &&
                EVP_PKEY_sign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &size,
                              OpenSsl::octets(digest), digest.size()) == 1,
            "couldn't sign");
    signature.resize(size);
    return signature;
}

std::string makeCms(X509& certificate, const DigestSigner& sign, const SignedContent& content) {
    const OpenSsl::ErrorMark mark;
    checkMaySign(certificate);
    const auto bytes = content.encoded();
    const auto digest = OpenSsl::sha256(bytes);
    const std::string octets(digest.begin(), digest.end());
    auto der = encodedCms(certificate, bytes, sign(*EVP_sha256(), octets));
    require(der.size() <= maximumBlobSize, "CMS is too large");
    return der;
}

std::string makeCms(X509& certificate, EVP_PKEY& key, const SignedContent& content) {
    const OpenSsl::ErrorMark mark;
    require(X509_check_private_key(&certificate, &key) == 1, "the key does not belong to the certificate");
    const auto sign = [&key](const EVP_MD& algorithm, std::string_view digest) {
        return signDigest(key, algorithm, digest);
    };
    return makeCms(certificate, sign, content);
}

void Authority::verify(const Cms& cms) const {
    const OpenSsl::ErrorMark mark;
    const auto parsed = decoded(cms.data().der);
    const auto certificate = onlyCertificateOf(*parsed);
    checkMaySign(*certificate);
    checkChain(*certificate);
    // The chain has been checked; now the signature.
    require(CMS_verify(parsed.get(), nullptr, nullptr, nullptr, nullptr,
                       CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) == 1,
            "signature does not belong to the content");
}

} // namespace PackageSignatures
