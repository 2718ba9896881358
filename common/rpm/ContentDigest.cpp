#include "common/rpm/ContentDigest.h"

#include "common/Error.h"

#include <rpm/rpmcrypto.h>

#include <cstdlib>
#include <string_view>
#include <utility>

namespace Common::Rpm {

namespace {

void freeContext(DIGEST_CTX context) { rpmDigestFinal(context, nullptr, nullptr, 0); }

} // namespace

ContentDigest::ContentDigest(FileDigest expected)
    : expected_(std::move(expected))
    , context_(rpmDigestInit(expected_.algorithm, RPMDIGEST_NONE), freeContext) {
    if (!context_ || expected_.value.empty() ||
        expected_.value.size() != rpmDigestLength(expected_.algorithm)) {
        throw Error(ErrorCode::BadPackage, "the rpm package has no usable file digest");
    }
}

void ContentDigest::update(std::span<const char> piece) {
    rpmDigestUpdate(context_.get(), piece.data(), piece.size());
}

bool ContentDigest::matches() {
    void* result = nullptr;
    std::size_t length = 0;
    rpmDigestFinal(context_.release(), &result, &length, 0);
    const std::unique_ptr<void, void (*)(void*)> owner(result, std::free);
    return result != nullptr && std::string_view(static_cast<const char*>(result), length) == expected_.value;
}

} // namespace Common::Rpm
