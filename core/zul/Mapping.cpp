#include "core/zul/Mapping.h"

#include "common/Files.h"
#include "common/LogLine.h"
#include "core/zul/FileCopy.h"

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

const char* const marker = "user.zul.mapping.target";

UniqueFd openPackageFile(const MappedFile& file) {
    const UniqueFd version(open(file.versionDirectory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    auto fd =
        Common::openWithin(version.get(), file.relative, O_RDONLY | O_NONBLOCK, Common::Outside::Refuse);
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0) {
        throw filesystemError("couldn't open " + file.path().native());
    }
    if (!S_ISREG(status.st_mode)) {
        throw Error(ErrorCode::Filesystem, "no regular file: " + file.path().native());
    }
    return fd;
}

} // namespace

Mapping::Mapping(SystemTree& tree, std::filesystem::path target)
    : tree_(tree)
    , target_(std::move(target))
    , parent_(target_.parent_path())
    , name_(target_.filename().native()) {
    if (!target_.is_absolute() || !Common::isOrdinaryName(name_)) {
        throw Error(ErrorCode::Filesystem, "no place for a mapping: " + target_.native());
    }
}

std::string Mapping::throughDescriptor() const {
    return "/proc/self/fd/" + std::to_string(directory()) + "/" + name_;
}

std::optional<mode_t> Mapping::fileType() const {
    const int parent = directory();
    struct stat status {};
    if (parent >= 0 && fstatat(parent, name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return status.st_mode & S_IFMT;
    }
    if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP) {
        throw filesystemError("couldn't look at " + target_.native());
    }
    return std::nullopt;
}

bool Mapping::isLinkOrMarkedCopy() const {
    const auto type = fileType();
    if (type != S_IFREG) {
        return type == S_IFLNK;
    }
    if (lgetxattr(throughDescriptor().c_str(), marker, nullptr, 0) >= 0) {
        return true;
    }
    if (errno != ENODATA && errno != EOPNOTSUPP && errno != ENOENT) {
        throw filesystemError("couldn't look at " + target_.native());
    }
    return false;
}

bool Mapping::exists() const { return fileType().has_value(); }

bool Mapping::isMapping() const noexcept {
    try {
        return isLinkOrMarkedCopy();
    } catch (const std::exception&) {
        return false;
    }
}

std::filesystem::path Mapping::mappingTarget() const {
    std::array<char, XATTR_SIZE_MAX> value; // NOLINT: filled below
    auto size = readlinkat(directory(), name_.c_str(), value.data(), value.size());
    if (size < 0) {
        size = lgetxattr(throughDescriptor().c_str(), marker, value.data(), value.size());
    }
    if (size < 0) {
        throw Error(ErrorCode::Filesystem, "couldn't retrieve target of " + target_.native() + " mapping");
    }
    return std::string(value.data(), static_cast<std::size_t>(size));
}

bool Mapping::standsForFileIn(const std::filesystem::path& directory) const {
    if (!isLinkOrMarkedCopy()) {
        return false;
    }
    const auto file = mappingTarget().lexically_normal();
    const auto above = directory.lexically_normal();
    return std::mismatch(above.begin(), above.end(), file.begin(), file.end()).first == above.end();
}

bool Mapping::standsFor(const MappedFile& file, MappingKind kind) const {
    if (!isMapping() || mappingTarget() != file.path()) {
        return false;
    }
    const UniqueFd here(openat(directory(), name_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return kind == MappingKind::Link ? !here : here && isSameFile(openPackageFile(file).get(), here.get());
}

void Mapping::createMapping(const MappedFile& file, MappingKind kind) const {
    if (kind == MappingKind::Copy) {
        createCopy(file);
        return;
    }
    const int parent = tree_.make(parent_);
    if (parent < 0 || symlinkat(file.path().c_str(), parent, name_.c_str()) != 0) {
        throw Error(ErrorCode::Filesystem,
                    "couldn't create symlink " + file.path().native() + " -> " + target_.native());
    }
}

void Mapping::createCopy(const MappedFile& file) const {
    const auto source = openPackageFile(file);
    const auto words = "couldn't copy " + file.path().native() + " -> " + target_.native();
    const int parent = tree_.make(parent_);
    const UniqueFd copy(parent < 0 ? -1
                                   : openat(parent, SystemTree::pendingName,
                                            O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!copy) {
        throw filesystemError(words);
    }
    try {
        copyFile(source.get(), copy.get());
        const auto path = file.path().native();
        if (fsetxattr(copy.get(), marker, path.data(), path.size(), 0) != 0) {
            throw filesystemError(std::string("couldn't attach ") + marker + " extended attribute to " +
                                  target_.native());
        }
        if (renameat(parent, SystemTree::pendingName, parent, name_.c_str()) != 0) {
            throw filesystemError(words);
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

} // namespace Core::ZUL
