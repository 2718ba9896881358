#include "core/zul/mapping/Mapping.h"

#include "common/Files.h"
#include "common/LogLine.h"
#include "core/zul/mapping/FileCopy.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <linux/limits.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace Core::ZUL {

namespace {

using Common::Error;
using Common::ErrorCode;
using Common::filesystemError;
using Common::UniqueFd;

using std::filesystem::path;

const char* const marker = "user.zul.mapping.target";

UniqueFd openPackageFile(const MappedFile& file) {
    const UniqueFd version(open(file.versionDirectory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    auto fd =
        Common::openWithin(version.get(), file.relative, O_RDONLY | O_NONBLOCK, Common::Resolve::Beneath);
    if (!fd) {
        throw filesystemError("couldn't open " + file.path().native());
    }
    if (!S_ISREG(Common::statusOf(fd.get()).st_mode)) {
        throw Error(ErrorCode::Filesystem, "not a regular file: " + file.path().native());
    }
    return fd;
}

/// Whether a file is or would be below a directory, links on the way to the directory followed.
/// @param flags  of fstatat(2): AT_SYMLINK_NOFOLLOW if the directory itself must not be a link
bool isBelow(const path& file, const path& directory, int flags) {
    const auto normal = file.lexically_normal();
    const auto above = directory.lexically_normal();
    if (std::mismatch(above.begin(), above.end(), normal.begin(), normal.end()).first == above.end()) {
        return true;
    }
    const auto there = Common::statusOf(directory, flags);
    for (auto parent = normal.parent_path(); there && parent.is_absolute() && parent.has_relative_path();
         parent = parent.parent_path()) {
        if (const auto status = Common::statusOf(parent); status && Common::isSameFile(*status, *there)) {
            return true;
        }
    }
    return false;
}

/// Whether a file was below the "current" of a package with this name, in a database that was moved.
bool wasBelow(const path& file, const path& package) {
    for (auto place = file; place.has_relative_path(); place = place.parent_path()) {
        const auto above = place.parent_path();
        if (place.filename() == "current" && above.filename() == package) {
            return above.is_absolute() && !Common::statusOf(above, AT_SYMLINK_NOFOLLOW);
        }
    }
    return false;
}

} // namespace

bool Mapping::isPlace(const path& target) {
    return target.is_absolute() && Common::isOrdinaryName(target.filename().native());
}

Mapping::Mapping(SystemTree& tree, std::filesystem::path target)
    : tree_(tree)
    , target_(std::move(target))
    , parent_(target_.parent_path())
    , name_(target_.filename().native()) {
    if (!isPlace(target_)) {
        throw Error(ErrorCode::Filesystem, "no place for a mapping: " + target_.native());
    }
}

std::string Mapping::throughDescriptor() const {
    return "/proc/self/fd/" + std::to_string(directory()) + "/" + name_;
}

std::optional<struct stat> Mapping::status() const {
    const int parent = directory();
    struct stat status {};
    if (parent >= 0 && fstatat(parent, name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return status;
    }
    if (!Common::meansAbsence(errno)) {
        throw filesystemError("couldn't look at " + target_.native());
    }
    return std::nullopt;
}

bool Mapping::isMapping() const {
    const auto present = status();
    if (!present || !S_ISREG(present->st_mode)) {
        return present && S_ISLNK(present->st_mode);
    }
    if (lgetxattr(throughDescriptor().c_str(), marker, nullptr, 0) >= 0) {
        return true;
    }
    // ENOENT may also mean that /proc is missing.
    if (errno != ENODATA && errno != EOPNOTSUPP && (errno != ENOENT || status())) {
        throw filesystemError("couldn't look at " + target_.native());
    }
    return false;
}

bool Mapping::exists() const { return status().has_value(); }

std::filesystem::path Mapping::mappingTarget() const {
    std::array<char, XATTR_SIZE_MAX> value; // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    auto size = readlinkat(directory(), name_.c_str(), value.data(), value.size());
    if (size < 0) {
        size = lgetxattr(throughDescriptor().c_str(), marker, value.data(), value.size());
    }
    if (size < 0) {
        throw Error(ErrorCode::Filesystem, "couldn't retrieve target of " + target_.native() + " mapping");
    }
    return std::string(value.data(), static_cast<std::size_t>(size));
}

bool Mapping::belongsTo(const path& packageDirectory) const {
    if (!isMapping()) {
        return false;
    }
    const auto file = mappingTarget();
    return isBelow(file, packageDirectory, AT_SYMLINK_NOFOLLOW) ||
           wasBelow(file, packageDirectory.filename());
}

bool Mapping::isReplaceable(const path& databaseRoot) const {
    return isMapping() && (!isLink() || isBelow(mappingTarget(), databaseRoot, 0));
}

bool Mapping::standsFor(const MappedFile& file, MappingKind kind) const {
    const auto present = status();
    if (!present || !isMapping() || S_ISLNK(present->st_mode) != (kind == MappingKind::Link) ||
        mappingTarget() != file.path()) {
        return false;
    }
    // A foreign file of the same size and times has no marker with this path.
    return kind == MappingKind::Link || isCopyOf(*present, Common::statusOf(openPackageFile(file).get()));
}

void Mapping::createMapping(const MappedFile& file, MappingKind kind) const {
    const int parent = tree_.make(parent_);
    kind == MappingKind::Copy ? createCopy(file, parent) : createLink(file, parent);
}

void Mapping::createLink(const MappedFile& file, int parent) const {
    const auto target = file.path();
    if (parent >= 0 && symlinkat(target.c_str(), parent, name_.c_str()) == 0) {
        return;
    }
    const bool isTaken = parent >= 0 && errno == EEXIST;
    if (!isTaken || symlinkat(target.c_str(), parent, SystemTree::pendingName) != 0) {
        throw Error(ErrorCode::Filesystem,
                    "couldn't create symlink " + target.native() + " -> " + target_.native());
    }
    if (renameat(parent, SystemTree::pendingName, parent, name_.c_str()) != 0) {
        unlinkat(parent, SystemTree::pendingName, 0);
        throw Error(ErrorCode::Filesystem, "couldn't clean up existing mapping: " + target_.native());
    }
}

void Mapping::createCopy(const MappedFile& file, int parent) const {
    const auto message = "couldn't copy " + file.path().native() + " -> " + target_.native();
    const UniqueFd copy(parent < 0 ? -1
                                   : openat(parent, SystemTree::pendingName,
                                            O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!copy) {
        throw filesystemError(message);
    }
    try {
        copyFile(openPackageFile(file).get(), copy.get(), {{marker, file.path().native()}});
        // Without the marker the file would be a system file after a power loss.
        if (fsync(copy.get()) != 0 || renameat(parent, SystemTree::pendingName, parent, name_.c_str()) != 0) {
            throw filesystemError(message);
        }
    } catch (...) {
        if (unlinkat(parent, SystemTree::pendingName, 0) != 0) {
            Common::logWarning() << "couldn't remove prepared mapping: " << Common::quoted(target_)
                                 << filesystemError("couldn't remove").what();
        }
        throw;
    }
}

void Mapping::remove() const {
    if (unlinkat(directory(), name_.c_str(), 0) != 0) {
        throw filesystemError("couldn't remove " + target_.native());
    }
}

void Mapping::removeDirectory() const { unlinkat(directory(), name_.c_str(), AT_REMOVEDIR); }

} // namespace Core::ZUL
