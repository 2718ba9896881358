#include "platform/pkgverify/FileWithCmses.h"

#include "common/LogLine.h"
#include "platform/reference/pkgverify/OpenPackage.h"

#include <exception>
#include <utility>

namespace PackageSignatures {

namespace {

/// Logs why the signatures of a file could not be read or are not valid.
/// @param path  of the file, or a link to it
void warn(const char* message, const std::filesystem::path& path, const std::string& reason) {
    std::error_code isNotALink;
    const auto target = std::filesystem::read_symlink(path, isNotALink);
    Common::logWarning() << message << " the signatures of " << Common::quoted(isNotALink ? path : target)
                         << ": " << reason;
}

} // namespace

FileWithCmses::FileWithCmses(std::shared_ptr<const OpenPackage> file)
    : file_(std::move(file)) {}

std::optional<FileWithCmses> FileWithCmses::fromPath(const std::filesystem::path& path) {
    try {
        return FileWithCmses(std::make_shared<const OpenPackage>(path));
    } catch (const std::exception& error) {
        warn("couldn't read", path, error.what());
        return {};
    }
}

bool FileWithCmses::verifyCmses(const std::filesystem::path& caPath) const {
    const auto problem = verificationProblem(*this, caPath);
    if (problem) {
        warn("couldn't verify", "/proc/self/fd/" + std::to_string(file_->descriptor()), *problem);
    }
    return !problem;
}

std::optional<std::string> verificationProblem(const FileWithCmses& file,
                                               const std::filesystem::path& caPath) {
    try {
        file.file_->requireVerified(caPath);
        return {};
    } catch (const std::exception& error) {
        return error.what();
    }
}

const std::vector<Cms>& FileWithCmses::cmses() const { return file_->cmses(); }

} // namespace PackageSignatures
