#include "common/Files.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <linux/openat2.h>
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

/// Gives the owner access to a directory and its subdirectories. No link is followed: each directory is
/// opened relative to its parent's descriptor and changed through its own.
void makeAccessible(const UniqueFd& parent, const std::filesystem::path& name) {
    const UniqueFd directory(openat(parent ? parent.get() : AT_FDCWD, name.c_str(),
                                    O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory) {
        return;
    }
    const auto self = "/proc/self/fd/" + std::to_string(directory.get());
    std::error_code denied; // the removal reports the same error
    std::filesystem::permissions(self, std::filesystem::perms::owner_all, std::filesystem::perm_options::add,
                                 denied);
    // Reads all entries first: an open iterator would need a second descriptor per level.
    std::vector<std::filesystem::path> inner;
    for (std::filesystem::directory_iterator entry(self, denied), end; !denied && entry != end;
         entry.increment(denied)) {
        inner.push_back(entry->path().filename());
    }
    for (const auto& entry : inner) {
        makeAccessible(directory, entry);
    }
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
    try {
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            entries.push_back(entry.path());
        }
    } catch (const std::filesystem::filesystem_error& error) {
        throw Error(ErrorCode::Filesystem, error.what());
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
    std::error_code error;
    std::filesystem::remove_all(plain, error);
    if (error == std::errc::permission_denied) {
        makeAccessible({}, plain);
        std::filesystem::remove_all(plain, error);
    }
    if (error && error != std::errc::not_a_directory) { // which a directory above it is not
        throw Error(ErrorCode::Filesystem, "couldn't remove " + plain.native() + ": " + error.message());
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
