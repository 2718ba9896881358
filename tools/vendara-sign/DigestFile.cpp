#include "tools/vendara-sign/DigestFile.h"

#include <boost/algorithm/hex.hpp>

#include <sstream>

namespace Signing {

namespace OpenSsl = PackageSignatures::OpenSsl;

namespace {

using Octets = OpenSsl::Owned<unsigned char, [](unsigned char* octets) { OPENSSL_free(octets); }>;

std::string octetsOf(const std::string& hexadecimal) {
    long size = 0;
    const Octets octets(OPENSSL_hexstr2buf(hexadecimal.c_str(), &size));
    OpenSsl::require(octets != nullptr, "not a hexadecimal number");
    return {reinterpret_cast<const char*>(octets.get()), static_cast<std::size_t>(size)};
}

std::string lineOf(const std::string& algorithm, std::string_view digest) {
    return algorithm + " " + boost::algorithm::hex(std::string(digest));
}

} // namespace

void DigestFile::addSignatures(const std::string& text) {
    const OpenSsl::ErrorMark mark;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string algorithm;
        std::string digest;
        std::string signature;
        std::string more;
        fields >> algorithm >> digest >> signature >> more;
        const bool isKnown = algorithm == "SHA256" || algorithm == "SHA384" || algorithm == "SHA512";
        const auto* known = isKnown ? EVP_get_digestbyname(algorithm.c_str()) : nullptr;
        if (known == nullptr || octetsOf(digest).size() != static_cast<std::size_t>(EVP_MD_get_size(known)) ||
            !more.empty()) {
            throw std::runtime_error("not a line of digest and signature: " + line);
        }
        if (!signature.empty()) {
            signatures_[lineOf(algorithm, octetsOf(digest))] = octetsOf(signature);
        }
    }
}

std::string DigestFile::signatureOf(X509& certificate, const EVP_MD& algorithm, std::string_view digest) {
    const OpenSsl::ErrorMark mark;
    const auto line = lineOf(OBJ_nid2sn(EVP_MD_get_type(&algorithm)), digest);
    const auto found = signatures_.find(line);
    if (found == signatures_.end()) {
        missing_.insert(line);
        return {};
    }
    const auto& signature = found->second;
    const OpenSsl::KeyContext context(EVP_PKEY_CTX_new(X509_get0_pubkey(&certificate), nullptr));
    if (!context || EVP_PKEY_verify_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_signature_md(context.get(), &algorithm) != 1 ||
        EVP_PKEY_verify(context.get(), OpenSsl::octets(signature), signature.size(), OpenSsl::octets(digest),
                        digest.size()) != 1) {
        throw std::runtime_error("the signature was not made with the certificate's key: " + line);
    }
    return signature;
}

} // namespace Signing
