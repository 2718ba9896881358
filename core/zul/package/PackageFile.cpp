#include "core/zul/package/PackageFile.h"

#include "common/Error.h"
#include "common/Files.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <tuple>

namespace Core::ZUL {

using Common::Error;
using Common::ErrorCode;

namespace {

/// @return false if no lease is available
bool takeLease(const Common::UniqueFd& file) {
    // Set first: the default signal, SIGIO, kills the process.
    if (fcntl(file.get(), F_SETSIG, SIGURG) != 0) {
        return false;
    }
    if (fcntl(file.get(), F_SETLEASE, F_RDLCK) == 0) {
        return true;
    }
    if (errno == EAGAIN) {
        throw Error(ErrorCode::BadPackage, "the package file is open for writing");
    }
    return false;
}

auto identity(const struct stat& status) {
    return std::tuple(status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
                      status.st_mtim.tv_nsec, status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
}

} // namespace

PackageFile::PackageFile(const std::filesystem::path& path)
    : PackageFile(Common::Rpm::openPackageFile(path.native()), path) {}

// The lease and the status are taken before the header is read, so that a header from before a change is not
// used. The reader's descriptor shares and keeps the lease.
PackageFile::PackageFile(const Common::UniqueFd& file, const std::filesystem::path& path)
    : isLeased_(takeLease(file))
    , opened_(Common::statusOf(file.get()))
    , reader_(file, path.native()) {
    requireUnchanged();
}

std::filesystem::path PackageFile::openFile() const {
    return "/proc/self/fd/" + std::to_string(Fileno(reader_.file()));
}

void PackageFile::requireUnchanged() const {
    const int file = Fileno(reader_.file());
    const bool isLeaseLost = isLeased_ && fcntl(file, F_GETLEASE) != F_RDLCK;
    if (isLeaseLost || identity(Common::statusOf(file)) != identity(opened_)) {
        throw Error(ErrorCode::BadPackage,
                    "the package file was replaced or opened for writing while it was in use");
    }
}

void PackageFile::requireSame(const std::filesystem::path& path) const {
    const auto status = Common::statusOf(path);
    if (!status) {
        throw Error(ErrorCode::FileNotFound, "couldn't open rpm package");
    }
    if (identity(*status) != identity(opened_)) {
        throw Error(ErrorCode::BadPackage,
                    "the package file is not the one that was validated: " + path.native());
    }
    requireUnchanged();
}

} // namespace Core::ZUL
