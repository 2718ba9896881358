#pragma once

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <climits>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

/// RAII types for OpenSSL's handles, and exceptions for its failures.
namespace PackageSignatures::OpenSsl {

template<auto release>
struct Releaser {
    template<typename Handle>
    void operator()(Handle* handle) const {
        release(handle);
    }
};
template<typename Handle, auto release>
using Owned = std::unique_ptr<Handle, Releaser<release>>;

using Bio = Owned<BIO, BIO_free_all>;
using Certificate = Owned<X509, X509_free>;
using CertificateStack =
    Owned<STACK_OF(X509), [](STACK_OF(X509) * stack) { sk_X509_pop_free(stack, X509_free); }>;
using Cms = Owned<CMS_ContentInfo, CMS_ContentInfo_free>;
using DigestContext = Owned<EVP_MD_CTX, EVP_MD_CTX_free>;
using Key = Owned<EVP_PKEY, EVP_PKEY_free>;
using KeyContext = Owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using ObjectId = Owned<ASN1_OBJECT, ASN1_OBJECT_free>;
using OctetString = Owned<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>;
using Store = Owned<X509_STORE, X509_STORE_free>;
using StoreContext = Owned<X509_STORE_CTX, X509_STORE_CTX_free>;
using ExtendedKeyUsage = Owned<EXTENDED_KEY_USAGE, EXTENDED_KEY_USAGE_free>;

/// Restores this thread's error queue on destruction, so that callers do not get errors of the scope.
class ErrorMark {
public:
    ErrorMark() { ERR_set_mark(); }
    ~ErrorMark() { ERR_pop_to_mark(); }
    ErrorMark(const ErrorMark&) = delete;
    ErrorMark& operator=(const ErrorMark&) = delete;
};

/// Throws std::runtime_error: the message and the library's reason, if there is one.
[[noreturn]] inline void fail(const std::string& message) {
    const char* reason = ERR_reason_error_string(ERR_peek_last_error());
    throw std::runtime_error(reason != nullptr ? message + ": " + reason : message);
}

/// Throws as fail() does if the condition is false.
inline void require(bool condition, const char* message) {
    if (!condition) {
        fail(message);
    }
}

/// The octets of a text, as the type that OpenSSL uses.
inline const unsigned char* octets(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

inline std::array<unsigned char, 32> sha256(std::string_view bytes) {
    std::array<unsigned char, 32> digest{};
    require(EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr) == 1,
            "couldn't compute a digest");
    return digest;
}

/// A BIO that reads the text, which must outlive it.
inline Bio reading(std::string_view text) {
    require(text.size() <= INT_MAX, "too many bytes");
    Bio bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    require(bio != nullptr, "out of memory");
    return bio;
}

/// All that was written to a memory BIO.
inline std::string contentOf(BIO* bio) {
    char* data = nullptr;
    const auto size = BIO_get_mem_data(bio, &data);
    return {data, static_cast<std::size_t>(size)};
}

/// The DER encoding of a value, by the i2d function of its type.
template<typename Value>
std::string derOf(Value* value, int (*encode)(Value*, unsigned char**)) {
    unsigned char* bytes = nullptr;
    const int size = encode(value, &bytes);
    const Owned<unsigned char, [](unsigned char* p) { OPENSSL_free(p); }> owner(bytes);
    require(size >= 0, "couldn't encode");
    return {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size)};
}

} // namespace PackageSignatures::OpenSsl
