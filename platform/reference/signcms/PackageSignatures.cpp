#include "platform/signcms/PackageSignatures.h"

#include "platform/reference/signcms/SignedBlob.h"

#include <algorithm>
#include <ctime>
#include <stdexcept>
#include <utility>

namespace PackageSignatures {

namespace {

std::string signatureOf(const SignedContent& content, std::uint32_t index,
                        std::string FileSignatures::*which) {
    const auto file = std::lower_bound(
        content.files.begin(), content.files.end(), index,
        [](const FileSignatures& entry, std::uint32_t wanted) { return entry.index < wanted; });
    return file != content.files.end() && file->index == index ? (*file).*which : std::string();
}

std::optional<Cms> onlyOneOf(const std::vector<Cms>& cmses, Role role) {
    const auto hasRole = [role](const Cms& cms) { return cms.certificate().role() == role; };
    if (std::count_if(cmses.begin(), cmses.end(), hasRole) != 1) {
        return {};
    }
    return *std::find_if(cmses.begin(), cmses.end(), hasRole);
}

} // namespace

Certificate::Certificate(std::string keyId, std::string subject, std::optional<Role> role)
    : keyId_(std::move(keyId))
    , subject_(std::move(subject))
    , role_(role) {}

Cms::Cms(std::shared_ptr<const CmsData> data)
    : data_(std::move(data)) {}

const Certificate& Cms::certificate() const { return data_->certificate; }

std::string Cms::fileSignature(std::uint32_t index) const {
    return signatureOf(data_->content, index, &FileSignatures::integrity);
}

std::string Cms::trustletSignature(std::uint32_t index) const {
    return signatureOf(data_->content, index, &FileSignatures::trustlet);
}

std::optional<Cms> developerCmsFromVector(const std::vector<Cms>& cmses) {
    return onlyOneOf(cmses, Role::Developer);
}

std::optional<Cms> clientCmsFromVector(const std::vector<Cms>& cmses) {
    return onlyOneOf(cmses, Role::Client);
}

std::chrono::sys_seconds validUntil(const Cms& cms) {
    std::tm fields{};
    if (ASN1_TIME_to_tm(X509_get0_notAfter(x509Of(cms).get()), &fields) != 1) {
        throw std::runtime_error("the certificate's expiry time is not valid");
    }
    return std::chrono::sys_seconds(std::chrono::seconds(timegm(&fields)));
}

} // namespace PackageSignatures
