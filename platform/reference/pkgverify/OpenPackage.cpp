#include "platform/reference/pkgverify/OpenPackage.h"

#include "common/Files.h"
#include "common/rpm/PackageLayout.h"
#include "platform/reference/signcms/SignedBlob.h"

#include <stdexcept>
#include <utility>

namespace PackageSignatures {

OpenPackage::OpenPackage(const std::filesystem::path& path)
    : file_(Common::openExistingFile(path))
    , size_(Common::sizeOf(file_.get()))
    , layout_(Container::readLayout(descriptor(), size_)) {
    if (layout_) {
        const auto rpm = Common::Rpm::readPackageLayout(descriptor());
        if (rpm && rpm->endOffset && *rpm->endOffset != layout_->packageLength) {
            throw std::runtime_error("package's signatures do not begin where its payload ends");
        }
        for (auto& der : Container::readCmses(descriptor(), *layout_)) {
            cmses_.push_back(readCms(std::move(der)));
        }
    }
}

void OpenPackage::requireVerified(const std::filesystem::path& caPath) const {
    if (cmses_.empty()) {
        return;
    }
    // The order is fixed, so that files with the same signatures are identical.
    if (cmses_.size() == 2 && (cmses_[0].certificate().role() != Role::Developer ||
                               cmses_[1].certificate().role() != Role::Client)) {
        throw std::runtime_error("the signatures are not a developer's and a client's, in this order");
    }
    const Authority authority(caPath);
    for (const auto& cms : cmses_) {
        authority.verify(cms);
    }
    // Last, because it takes longest: gigabytes are hashed only for a valid signature.
    const auto digest = Container::digestOf(descriptor(), packageLength());
    for (const auto& cms : cmses_) {
        if (cms.data().content.package != digest) {
            throw std::runtime_error("a signature was made for another package");
        }
    }
}

} // namespace PackageSignatures
