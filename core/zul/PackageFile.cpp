#include "core/zul/PackageFile.h"

#include "common/Error.h"
#include "common/LogLine.h"

#include <string>
#include <tuple>

namespace Core::ZUL {

using Common::Error;
using Common::ErrorCode;

namespace {

struct stat statusOf(const std::filesystem::path& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        throw Error(ErrorCode::FileNotFound, "couldn't open rpm package");
    }
    return status;
}

auto identity(const struct stat& status) {
    return std::tuple(status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
                      status.st_mtim.tv_nsec, status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
}

} // namespace

// The status is taken before anything is read, so that a header from before a change cannot pass for the
// file's.
PackageFile::PackageFile(const std::filesystem::path& path)
    : opened_(statusOf(path))
    , reader_(path.native()) {
    requireUnchanged();
}

std::filesystem::path PackageFile::openFile() const {
    return "/proc/self/fd/" + std::to_string(Fileno(reader_.file()));
}

void PackageFile::requireUnchanged() const {
    struct stat status {};
    if (fstat(Fileno(reader_.file()), &status) != 0 || identity(status) != identity(opened_)) {
        throw Error(ErrorCode::BadPackage, "the package file was changed while it was in use");
    }
}

void PackageFile::requireSame(const std::filesystem::path& path) const {
    if (identity(statusOf(path)) != identity(opened_)) {
        throw Error(ErrorCode::BadPackage,
                    "the package file is not the one that was validated: " + Common::quoted(path));
    }
}

} // namespace Core::ZUL
