#include "tools/vendara-sign/AtomicFile.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace Signing {

namespace {

void require(bool condition, const std::filesystem::path& path) {
    if (!condition) {
        throw std::system_error(errno, std::generic_category(), path.string());
    }
}

} // namespace

AtomicFile::AtomicFile(const std::filesystem::path& path, mode_t mode)
    : path_(std::filesystem::weakly_canonical(std::filesystem::absolute(path))) {
    auto name =
        (path_.parent_path() / std::string(".").append(path_.filename().string()).append(".XXXXXX")).string();
    descriptor_ = Common::UniqueFd(mkostemp(name.data(), O_CLOEXEC));
    require(static_cast<bool>(descriptor_), path);
    temporary_ = name;
    if (fchmod(descriptor_.get(), mode) != 0) {
        const auto code = errno;
        unlink(temporary_.c_str());
        throw std::system_error(code, std::generic_category(), path.string());
    }
}

AtomicFile::~AtomicFile() {
    if (!temporary_.empty()) {
        unlink(temporary_.c_str());
    }
}

void AtomicFile::write(std::string_view bytes) { writeAll(descriptor_.get(), bytes, path_); }

void AtomicFile::commit() {
    require(fsync(descriptor_.get()) == 0, path_);
    require(rename(temporary_.c_str(), path_.c_str()) == 0, path_);
    temporary_.clear();
    // The new name is on the disk when its directory is.
    const Common::UniqueFd directory(open(path_.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    require(directory && fsync(directory.get()) == 0, path_.parent_path());
}

void writeAll(int descriptor, std::string_view bytes, const std::filesystem::path& path) {
    while (!bytes.empty()) {
        const auto count = ::write(descriptor, bytes.data(), bytes.size());
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else {
            require(errno == EINTR, path);
        }
    }
}

} // namespace Signing
