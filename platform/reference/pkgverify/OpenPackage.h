#pragma once

#include "common/UniqueFd.h"
#include "platform/reference/pkgverify/Container.h"
#include "platform/signcms/PackageSignatures.h"

#include <filesystem>
#include <optional>
#include <vector>

namespace PackageSignatures {

/// An open package file and its signatures, for FileWithCmses and the signing tool. Immutable; any thread.
class OpenPackage {
public:
    /// Opens the file and reads its signatures without verifying them.
    /// Throws std::runtime_error where FileWithCmses::fromPath() returns nothing.
    explicit OpenPackage(const std::filesystem::path& path);

    [[nodiscard]] int descriptor() const { return file_.get(); }
    /// Bytes of the package itself, without its signatures.
    [[nodiscard]] std::uint64_t packageLength() const { return layout_ ? layout_->packageLength : size_; }
    [[nodiscard]] const std::vector<Cms>& cmses() const { return cmses_; }

    /// Throws std::runtime_error with the reason where FileWithCmses::verifyCmses() returns false.
    void requireVerified(const std::filesystem::path& caPath) const;

private:
    Common::UniqueFd file_;
    std::uint64_t size_;
    std::optional<Container::Layout> layout_;
    std::vector<Cms> cmses_;
};

} // namespace PackageSignatures
