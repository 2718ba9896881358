#include "tools/vendara-sign/Identity.h"

#include "common/Files.h"
#include "platform/reference/signcms/SignedBlob.h"

#include <openssl/pem.h>
#include <openssl/store.h>
#include <openssl/ui.h>

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <string_view>
#include <strings.h>
#include <utility>
#include <vector>

namespace Signing {

namespace OpenSsl = PackageSignatures::OpenSsl;

namespace {

constexpr std::size_t maximumFileSize = std::size_t{1024} * 1024;

using Store = OpenSsl::Owned<OSSL_STORE_CTX, OSSL_STORE_close>;
using StoreInfo = OpenSsl::Owned<OSSL_STORE_INFO, OSSL_STORE_INFO_free>;
using UserInterface = OpenSsl::Owned<UI_METHOD, UI_destroy_method>;

/// The content of a file or token.
struct Contents {
    OpenSsl::Key key;
    std::vector<OpenSsl::Certificate> certificates;
    const char* problem = nullptr; ///< why the content may be incomplete
};

/// Prompts for a passphrase once, however often OpenSSL tries to decrypt with it.
struct Prompt {
    const std::string& source;
    const Passphrase& passphrase;
    bool isAsked = false;
    std::optional<Secret> text = {};

    static int answer(char* buffer, int size, int /*isWriting*/, void* self) {
        auto& prompt = *static_cast<Prompt*>(self);
        auto& text = prompt.text;
        if (!std::exchange(prompt.isAsked, true) && prompt.passphrase) {
            text = prompt.passphrase(prompt.source);
        }
        if (!text || text->size() >= static_cast<std::size_t>(size)) {
            return -1;
        }
        std::copy(text->begin(), text->end(), buffer);
        return static_cast<int>(text->size());
    }
};

bool isToken(const std::string& source) {
    constexpr std::string_view scheme = "pkcs11:";
    return strncasecmp(source.c_str(), scheme.data(), scheme.size()) == 0;
}

Contents contentsOf(const std::string& source, const Passphrase& passphrase) {
    Prompt prompt{source, passphrase};
    const UserInterface interface(UI_UTIL_wrap_read_pem_callback(Prompt::answer, 0));
    OpenSsl::require(interface != nullptr, "out of memory");
    std::string bytes;
    OpenSsl::Bio file;
    Store store;
    if (isToken(source)) {
        store.reset(OSSL_STORE_open(source.c_str(), interface.get(), &prompt, nullptr, nullptr));
    } else {
        bytes = Common::readExistingFile(source, maximumFileSize);
        file = OpenSsl::reading(bytes);
        store.reset(OSSL_STORE_attach(file.get(), "file", nullptr, nullptr, interface.get(), &prompt, nullptr,
                                      nullptr, nullptr));
    }
    if (!store) {
        OpenSsl::fail(withoutQuery(source) + ": OpenSSL couldn't open it, or has no provider for it");
    }
    Contents contents;
    while (OSSL_STORE_eof(store.get()) == 0) {
        const StoreInfo info(OSSL_STORE_load(store.get()));
        if (!info) {
            break;
        }
        if (OpenSsl::Key key(OSSL_STORE_INFO_get1_PKEY(info.get())); key && !contents.key) {
            contents.key = std::move(key);
        } else if (OpenSsl::Certificate certificate(OSSL_STORE_INFO_get1_CERT(info.get())); certificate) {
            contents.certificates.push_back(std::move(certificate));
        }
    }
    if (prompt.isAsked && OSSL_STORE_error(store.get()) != 0) {
        contents.problem = prompt.text ? "couldn't be decrypted with the passphrase"
                                       : "is encrypted, and there is no passphrase for it";
    }
    return contents;
}

[[noreturn]] void failWithout(const char* what, const std::string& source, const Contents& contents) {
    throw std::runtime_error(withoutQuery(source) + (contents.problem != nullptr
                                                         ? std::string(": ") + contents.problem
                                                         : std::string(": has no ") + what));
}

} // namespace

Identity loadIdentity(const std::string& key, const std::string& certificate, const Passphrase& passphrase) {
    const OpenSsl::ErrorMark mark;
    Identity identity;
    Contents contents;
    if (!key.empty()) {
        contents = contentsOf(key, passphrase);
        if (!contents.key) {
            failWithout("private key", key, contents);
        }
        identity.key = std::move(contents.key);
    }
    const auto& source = certificate.empty() ? key : certificate;
    if (source != key) {
        contents = contentsOf(source, passphrase);
    }
    if (contents.certificates.empty()) {
        failWithout("certificate", source, contents);
    }
    for (auto& each : contents.certificates) {
        if (!identity.certificate &&
            (!identity.key || X509_check_private_key(each.get(), identity.key.get()) == 1)) {
            identity.certificate = std::move(each);
        }
    }
    if (!identity.certificate) {
        throw std::runtime_error(withoutQuery(key) + ": does not belong to the certificate " +
                                 withoutQuery(source));
    }
    try {
        PackageSignatures::checkMaySign(*identity.certificate);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(withoutQuery(source) + ": " + error.what());
    }
    return identity;
}

std::string withoutQuery(const std::string& source) {
    return isToken(source) ? source.substr(0, source.find('?')) : source;
}

std::string textOf(const ASN1_TIME& time) {
    std::tm fields{};
    ASN1_TIME_to_tm(&time, &fields);
    std::ostringstream text;
    text << std::put_time(&fields, "%Y-%m-%dT%H:%M:%SZ");
    return text.str();
}

void requireValidNow(const X509& certificate) {
    const auto require = [](bool condition, const std::string& problem, const ASN1_TIME* time) {
        if (!condition) {
            throw std::runtime_error(problem +
                                     textOf(*time).substr(0, std::string_view("YYYY-MM-DD").size()));
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
