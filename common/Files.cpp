#include "common/Files.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <memory>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <system_error>
#include <utility>
#include <vector>

namespace Common {

namespace {

UniqueFd openDirectory(const std::filesystem::path& directory) {
    UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) {
        throw filesystemError("couldn't open directory " + directory.native());
    }
    return fd;
}

/// The names in a directory. The iterators of std::filesystem end the process when memory runs out.
class DirectoryReader {
public:
    /// @param flags  more flags of open(2)
    DirectoryReader(int parent, const char* name, int flags = 0) {
        UniqueFd fd(openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags));
        stream_.reset(fd ? fdopendir(fd.get()) : nullptr);
        if (stream_) {
            static_cast<void>(fd.release()); // the stream owns it
        }
    }

    explicit operator bool() const { return stream_ != nullptr; }
    [[nodiscard]] int descriptor() const { return dirfd(stream_.get()); }

    /// @return null at the end, with errno 0, and after a failure
    [[nodiscard]] const char* next() {
        errno = 0;
        while (const dirent* entry = readdir(stream_.get())) {
            const std::string_view name = entry->d_name;
            if (name != "." && name != "..") {
                return entry->d_name;
            }
        }
        return nullptr;
    }

private:
    struct Closer {
        void operator()(DIR* stream) const { closedir(stream); }
    };
    std::unique_ptr<DIR, Closer> stream_;
};

/// Removes a directory with everything in it. No link is followed.
/// @param isForced  whether the owner is first given access to each directory
/// @return whether it is gone; otherwise errno has the reason
bool removeDirectory(int parent, const char* name, bool isForced) noexcept {
    if (isForced) {
        fchmodat(parent, name, S_IRWXU, AT_SYMLINK_NOFOLLOW); // the removal reports the same error
    }
    DirectoryReader reader(parent, name, O_NOFOLLOW);
    while (const char* entry = reader ? reader.next() : nullptr) {
        const bool isGone = unlinkat(reader.descriptor(), entry, 0) == 0 ||
                            (errno == EISDIR && removeDirectory(reader.descriptor(), entry, isForced));
        if (!isGone && errno != ENOENT) {
            return false;
        }
    }
    return reader && errno == 0 && unlinkat(parent, name, AT_REMOVEDIR) == 0;
}

} // namespace

Error filesystemError(const std::string& message) {
    return {ErrorCode::Filesystem, message + ": " + std::generic_category().message(errno)};
}

bool isOrdinaryName(std::string_view name) noexcept {
    const auto isForbidden = [](char character) {
        const auto byte = static_cast<unsigned char>(character);
        return byte == '/' || byte < 0x20 || byte == 0x7f;
    };
    return !name.empty() && name.size() <= NAME_MAX && name != "." && name != ".." &&
           std::none_of(name.begin(), name.end(), isForbidden);
}

bool meansAbsence(int error) noexcept {
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG;
}

std::optional<struct stat> statusOf(const std::filesystem::path& path, int flags) {
    struct stat status {};
    if (fstatat(AT_FDCWD, path.c_str(), &status, flags) == 0) {
        return status;
    }
    if (!meansAbsence(errno)) {
        throw filesystemError("couldn't look at " + path.native());
    }
    return std::nullopt;
}

bool exists(const std::filesystem::path& path) { return statusOf(path).has_value(); }

bool isSameFile(const struct stat& first, const struct stat& second) noexcept {
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

bool isSameFile(const std::filesystem::path& first, const std::filesystem::path& second) {
    const auto one = statusOf(first);
    const auto other = statusOf(second);
    return one && other && isSameFile(*one, *other);
}

std::optional<std::filesystem::path> linkTarget(const std::filesystem::path& path) {
    std::string target(PATH_MAX, '\0');
    const auto size = readlink(path.c_str(), target.data(), target.size());
    // EINVAL: it is not a link.
    if (size < 0 && errno != EINVAL && !meansAbsence(errno)) {
        throw filesystemError("couldn't read link " + path.native());
    }
    target.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return size < 0 ? std::nullopt : std::optional<std::filesystem::path>(std::move(target));
}

std::vector<std::filesystem::path> entriesOf(const std::filesystem::path& directory) {
    std::vector<std::filesystem::path> entries;
    DirectoryReader reader(AT_FDCWD, directory.c_str());
    while (const char* name = reader ? reader.next() : nullptr) {
        entries.push_back(directory / name);
    }
    if (!reader || errno != 0) {
        throw filesystemError("couldn't read directory " + directory.native());
    }
    return entries;
}

UniqueFd openWithin(int directory, const std::filesystem::path& path, int flags, Resolve resolve) noexcept {
    open_how how{};
    how.flags = static_cast<unsigned>(flags) | O_CLOEXEC;
    how.resolve = RESOLVE_NO_MAGICLINKS | (resolve == Resolve::Beneath ? RESOLVE_BENEATH : RESOLVE_IN_ROOT);
    // EAGAIN: a rename or mount during a step upwards; the kernel cannot say where the step led.
    constexpr unsigned attempts = 500;
    long fd = -1;
    unsigned attempt = 0;
    do {
        fd = syscall(SYS_openat2, directory, path.c_str(), &how, sizeof how);
    } while (fd < 0 && errno == EAGAIN && ++attempt < attempts);
    return UniqueFd(static_cast<int>(fd));
}

UniqueFd openRegularFile(const std::filesystem::path& file) noexcept {
    struct stat status {};
    errno = EINVAL;
    if (file.native().find('\0') != std::string::npos) {
        return {};
    }
    // Without O_NONBLOCK a FIFO would block until another process writes to it.
    UniqueFd fd(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    const bool isKnown = fd && fstat(fd.get(), &status) == 0;
    if (!fd || (isKnown && S_ISREG(status.st_mode))) {
        return fd;
    }
    const int error = !isKnown ? errno : S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    fd = UniqueFd();
    errno = error;
    return fd;
}

UniqueFd openExistingFile(const std::filesystem::path& file) {
    auto fd = openRegularFile(file);
    if (!fd) {
        throw Error(ErrorCode::Filesystem,
                    errno == EINVAL ? "not a regular file" : std::generic_category().message(errno));
    }
    return fd;
}

struct stat statusOf(int descriptor) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) {
        throw filesystemError("couldn't look at an open file");
    }
    return status;
}

std::uint64_t sizeOf(int descriptor) { return static_cast<std::uint64_t>(statusOf(descriptor).st_size); }

std::optional<std::string> readRegularFile(const std::filesystem::path& file, std::size_t limit) {
    const auto fd = openRegularFile(file);
    if (!fd && meansAbsence(errno)) {
        return std::nullopt;
    }
    if (!fd && errno != EISDIR && errno != EINVAL) {
        throw filesystemError("couldn't open " + file.native());
    }
    const auto size = fd ? sizeOf(fd.get()) : 0;
    if (!fd || size > limit) {
        throw Error(ErrorCode::FileNotFound,
                    "not a regular file of at most " + std::to_string(limit) + " bytes: " + file.native());
    }
    std::string text(static_cast<std::size_t>(size), '\0');
    const auto filled = readAll(fd.get(), std::as_writable_bytes(std::span(text)));
    if (!filled) {
        throw filesystemError("couldn't read " + file.native());
    }
    text.resize(*filled);
    return text;
}

std::string readExistingFile(const std::filesystem::path& file, std::size_t limit) {
    auto text = readRegularFile(file, limit);
    if (!text) {
        throw Error(ErrorCode::FileNotFound, file.native() + ": " + std::generic_category().message(ENOENT));
    }
    return std::move(*text);
}

void removeTree(const std::filesystem::path& path) {
    // With a slash at the end a link would be followed.
    const auto plain = path.has_filename() ? path : path.parent_path();
    const bool isGone = removeDirectory(AT_FDCWD, plain.c_str(), false) ||
                        (errno == EACCES && removeDirectory(AT_FDCWD, plain.c_str(), true)) ||
                        (errno == ENOTDIR && unlink(plain.c_str()) == 0);
    if (!isGone && errno != ENOENT && errno != ENOTDIR) { // which a directory above it is not
        throw filesystemError("couldn't remove " + plain.native());
    }
}

bool makePublicDirectory(int parent, const std::filesystem::path& path) noexcept {
    if (mkdirat(parent, path.c_str(), 0755) != 0) {
        return false;
    }
    // fchmodat() that follows no link would need /proc.
    const UniqueFd made(openat(parent, path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (made && fchmod(made.get(), 0755) == 0) {
        return true;
    }
    const int error = errno;
    unlinkat(parent, path.c_str(), AT_REMOVEDIR);
    errno = error;
    return false;
}

void makePublicDirectories(const std::filesystem::path& path) {
    bool isMade = makePublicDirectory(AT_FDCWD, path);
    if (!isMade && errno == ENOENT && path.has_parent_path()) {
        makePublicDirectories(path.parent_path());
        isMade = makePublicDirectory(AT_FDCWD, path);
    }
    if (!isMade && errno != EEXIST) {
        throw filesystemError("couldn't create directory " + path.native());
    }
    if (isMade) {
        try {
            flushDirectory(path.has_parent_path() ? path.parent_path() : ".");
        } catch (...) {
            rmdir(path.c_str()); // the next attempt flushes again
            throw;
        }
    }
}

void flushDirectory(const std::filesystem::path& directory) {
    if (fsync(openDirectory(directory).get()) != 0) {
        throw filesystemError("couldn't flush directory " + directory.native());
    }
}

void flushFileSystem(const std::filesystem::path& directory) {
    if (syncfs(openDirectory(directory).get()) != 0) {
        throw filesystemError("couldn't flush the file system of " + directory.native());
    }
}

void replaceLink(const std::filesystem::path& link, const std::filesystem::path& target) {
    const auto pending = link.parent_path() / ("." + link.filename().native() + ".new");
    removeTree(pending);
    if (symlink(target.c_str(), pending.c_str()) != 0) {
        throw filesystemError("couldn't create link " + pending.native());
    }
    rmdir(link.c_str());
    if (rename(pending.c_str(), link.c_str()) != 0) {
        const auto failure = filesystemError("couldn't replace link " + link.native());
        unlink(pending.c_str());
        throw failure;
    }
}

std::optional<std::size_t> readAll(int descriptor, std::span<std::byte> buffer,
                                   std::optional<std::uint64_t> offset) noexcept {
    std::size_t filled = 0;
    while (filled < buffer.size()) {
        const auto rest = buffer.subspan(filled);
        const auto count =
            offset ? pread(descriptor, rest.data(), rest.size(), static_cast<off_t>(*offset + filled))
                   : read(descriptor, rest.data(), rest.size());
        if (count < 0 && errno != EINTR) {
            return std::nullopt;
        }
        if (count == 0) {
            break;
        }
        filled += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    return filled;
}

bool writeAll(int descriptor, std::span<const char> bytes) noexcept {
    while (!bytes.empty()) {
        const auto count = write(descriptor, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return true;
}

void writeAll(int descriptor, std::string_view bytes, const std::filesystem::path& path) {
    if (!writeAll(descriptor, bytes)) {
        throw filesystemError("couldn't write " + path.native());
    }
}

AtomicFile::AtomicFile(const std::filesystem::path& directory, const std::string& name,
                       const Options& options)
    : directory_(directory.empty() ? "." : directory)
    , final_(directory / name)
    , pending_(directory /
               ("." + name + "." + (options.concurrentWriters ? std::to_string(getpid()) : "new")))
    , mode_(options.mode) {
    removeTree(pending_);
    if (options.concurrentWriters) {
        file_ = UniqueFd(open(directory_.c_str(), O_RDWR | O_TMPFILE | O_CLOEXEC, 0600));
    }
    if (!file_) {
        file_ = UniqueFd(open(pending_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        named_ = true;
    }
    if (!file_) {
        throw filesystemError("couldn't create " + final_.native());
    }
}

AtomicFile::~AtomicFile() {
    if (file_ && named_) {
        unlink(pending_.c_str());
    }
}

// rename(2) needs a name; a file of O_TMPFILE gets one here.
void AtomicFile::giveName() {
    if (named_) {
        return;
    }
    const auto self = "/proc/self/fd/" + std::to_string(file_.get());
    if (linkat(AT_FDCWD, self.c_str(), AT_FDCWD, pending_.c_str(), AT_SYMLINK_FOLLOW) != 0) {
        throw filesystemError("couldn't create " + final_.native());
    }
    named_ = true;
}

void AtomicFile::commit(Durability durability) {
    if (fchmod(file_.get(), mode_) != 0) {
        throw filesystemError("couldn't set the mode of " + final_.native());
    }
    // Flush the content first: after a power loss a file with only its name on disk would be empty.
    if (durability == Durability::Now && fsync(file_.get()) != 0) {
        throw filesystemError("couldn't flush " + final_.native());
    }
    giveName();
    if (rename(pending_.c_str(), final_.c_str()) != 0) {
        throw filesystemError("couldn't replace " + final_.native());
    }
    file_ = UniqueFd();
    if (durability == Durability::Now) {
        flushDirectory(directory_);
    }
}

} // namespace Common
