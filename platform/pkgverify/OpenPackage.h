#pragma once

#include "platform/RegularFile.h"
#include "platform/pkgverify/Container.h"
#include "platform/signcms/PackageSignatures.h"

#include <filesystem>
#include <optional>
#include <vector>

namespace PackageSignatures {

/// What FileWithCmses and the signing tool share: an open package file and the signatures that it carries.
/// Immutable; any thread.
class OpenPackage {
public:
    /// Opens the file and reads its signatures, which verifies nothing yet.
    /// Throws std::runtime_error where FileWithCmses::fromPath() gives nothing.
    explicit OpenPackage(const std::filesystem::path& path);

    [[nodiscard]] int descriptor() const { return file_.descriptor(); }
    /// Bytes of the package itself, without its signatures.
    [[nodiscard]] std::uint64_t packageLength() const {
        return layout_ ? layout_->packageLength : file_.size();
    }
    [[nodiscard]] const std::vector<Cms>& cmses() const { return cmses_; }

    /// Throws std::runtime_error, which says why, where FileWithCmses::verifyCmses() gives false.
    void requireVerified(const std::filesystem::path& caPath) const;

private:
    Platform::RegularFile file_;
    std::optional<Container::Layout> layout_;
    std::vector<Cms> cmses_;
};

} // namespace PackageSignatures
