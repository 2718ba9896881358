#include "platform/pkgverify/FileWithCmses.h"

#include "platform/pkgverify/OpenPackage.h"

#include <exception>
#include <utility>

namespace PackageSignatures {

FileWithCmses::FileWithCmses(std::shared_ptr<const OpenPackage> file)
    : file_(std::move(file)) {}

std::optional<FileWithCmses> FileWithCmses::fromPath(const std::filesystem::path& path) {
    try {
        return FileWithCmses(std::make_shared<const OpenPackage>(path));
    } catch (const std::exception&) {
        return {};
    }
}

bool FileWithCmses::verifyCmses(const std::filesystem::path& caPath) const {
    try {
        file_->requireVerified(caPath);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

const std::vector<Cms>& FileWithCmses::cmses() const { return file_->cmses(); }

} // namespace PackageSignatures
