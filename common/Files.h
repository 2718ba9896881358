#pragma once

#include "common/Error.h"
#include "common/UniqueFd.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

namespace Common {

// File operations for trees whose content is not trusted. All may be called by any thread, and all throw
// Error, code Filesystem, unless stated otherwise.

/// A Filesystem error: the message, ": " and the text of the current errno.
[[nodiscard]] Error filesystemError(const std::string& message);

/// Whether a text is one ordinary path component: 1 to 255 bytes, neither "." nor "..", without "/" and
/// control characters.
[[nodiscard]] bool isOrdinaryName(std::string_view name) noexcept;

// The next functions throw for every failure except absence, for example for an input or output error.

/// Whether an errno means that a path does not exist: ENOENT, ENOTDIR, ELOOP, ENAMETOOLONG.
[[nodiscard]] bool meansAbsence(int error) noexcept;

/// The status of a file; nothing if the path does not exist.
/// @param flags  of fstatat(2): AT_SYMLINK_NOFOLLOW for that of a link itself
[[nodiscard]] std::optional<struct stat> statusOf(const std::filesystem::path& path, int flags = 0);

/// Whether a path exists, links followed.
[[nodiscard]] bool exists(const std::filesystem::path& path);

/// Whether two statuses are of the same file, or two paths lead to the same existing file.
[[nodiscard]] bool isSameFile(const struct stat& first, const struct stat& second) noexcept;
[[nodiscard]] bool isSameFile(const std::filesystem::path& first, const std::filesystem::path& second);

/// The stored target of a symbolic link; nothing if the path is not a link.
[[nodiscard]] std::optional<std::filesystem::path> linkTarget(const std::filesystem::path& path);

/// The paths of a directory's entries, in directory order.
[[nodiscard]] std::vector<std::filesystem::path> entriesOf(const std::filesystem::path& directory);

/// How openWithin() handles links that lead out of the directory, in openat2(2)'s terms.
enum class Resolve {
    Beneath, ///< fails with EXDEV, also for every absolute link
    InRoot,  ///< the directory takes the place of "/" for absolute links and "..", as after chroot(2)
};

/// Opens a path below a directory by openat2(2), which needs Linux 5.6.
/// @param flags  of open(2); close-on-exec is added
/// @return nothing with errno set when it cannot be opened
[[nodiscard]] UniqueFd openWithin(int directory, const std::filesystem::path& path, int flags,
                                  Resolve resolve) noexcept;

/// Opens a regular file for reading, links followed. The type of the opened descriptor is checked, and the
/// call does not block on a FIFO or a device.
/// @return nothing with errno set when it cannot be opened; EISDIR or EINVAL when it is not a regular file
[[nodiscard]] UniqueFd openRegularFile(const std::filesystem::path& file) noexcept;

/// The same for a file that has to be there. Throws Error, code Filesystem, with the reason alone: the caller
/// names the file.
[[nodiscard]] UniqueFd openExistingFile(const std::filesystem::path& file);

/// The status of an open file.
[[nodiscard]] struct stat statusOf(int descriptor);

/// The size of an open file in bytes.
[[nodiscard]] std::uint64_t sizeOf(int descriptor);

/// Reads a regular file; never blocks on a file of another type.
/// @param limit  the largest accepted size in bytes
/// @return nothing if the file does not exist or a link is dangling
/// Also throws FileNotFound, for a file that is not regular or too large.
[[nodiscard]] std::optional<std::string> readRegularFile(const std::filesystem::path& file,
                                                         std::size_t limit);

/// A function with the signature of readRegularFile().
using FileReader = std::function<std::optional<std::string>(const std::filesystem::path&, std::size_t)>;

/// The same, but throws FileNotFound if the file does not exist.
[[nodiscard]] std::string readExistingFile(const std::filesystem::path& file, std::size_t limit);

/// Deletes a file, a link or a directory tree. Links are never followed, even if one replaces a directory
/// during the call. Directories that deny their owner access are made accessible if the caller owns them. A
/// path that does not exist is not a failure. Stops at the first failure. Needs a file descriptor for each
/// level of directories (RLIMIT_NOFILE).
void removeTree(const std::filesystem::path& path);

/// Creates a directory with mode 0755, independent of the umask. A failure leaves no directory; a process
/// killed during the call may leave one with the umask's mode.
/// @param parent  descriptor of the directory that a relative path starts from, or AT_FDCWD
/// @return false with errno set when it cannot be created; EEXIST when the path exists
[[nodiscard]] bool makePublicDirectory(int parent, const std::filesystem::path& path) noexcept;

/// The same for a directory and its missing parents; those that it makes are on disk on return. An existing
/// directory keeps its mode. The path does not end with a slash.
void makePublicDirectories(const std::filesystem::path& path);

/// Waits until a directory's own entries are on disk (fsync(2)).
void flushDirectory(const std::filesystem::path& directory);

/// Waits until the file system of a directory is on disk (syncfs(2)).
void flushFileSystem(const std::filesystem::path& directory);

/// Creates or atomically replaces a symbolic link. An empty directory in its place is replaced as well.
void replaceLink(const std::filesystem::path& link, const std::filesystem::path& target);

/// Reads until the buffer is full or the file ends.
/// @param offset  reads from it and keeps the descriptor's offset; default: reads from the latter
/// @return number of bytes; nothing, with errno set, when the file cannot be read
[[nodiscard]] std::optional<std::size_t> readAll(int descriptor, std::span<std::byte> buffer,
                                                 std::optional<std::uint64_t> offset = {}) noexcept;

/// Writes all bytes at the descriptor's offset.
/// @return false, with errno set, when they cannot be written
[[nodiscard]] bool writeAll(int descriptor, std::span<const char> bytes) noexcept;

/// The same, but throws an error that names the file.
void writeAll(int descriptor, std::string_view bytes, const std::filesystem::path& path);

/// When AtomicFile::commit() flushes a file to disk.
enum class Durability {
    Later, ///< not; the caller flushes all files that it wrote together
    Now,   ///< content and name, before it returns
};

/// A file that is written completely and then renamed into place (rename(2)), replacing an existing file or
/// link of its name. Until commit() it has a temporary name in the same directory, or none, and only its
/// owner has access. Used by one thread.
class AtomicFile {
public:
    struct Options {
        mode_t mode = 0644; ///< permission bits, independent of the umask
        /// Whether other processes may write the same file at the same time. If false, the temporary name is
        /// fixed, so a leftover of an interrupted process is replaced. If true, the file has no name before
        /// commit() (open(2), O_TMPFILE), so an interruption leaves nothing; on a file system without this
        /// feature the temporary name contains the process ID.
        bool concurrentWriters = false;
    };

    /// @param directory  of the file; empty: the working directory
    AtomicFile(const std::filesystem::path& directory, const std::string& name)
        : AtomicFile(directory, name, Options{}) {}
    AtomicFile(const std::filesystem::path& directory, const std::string& name, const Options& options);
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    /// For reading the written content; write() appends at the descriptor's offset.
    [[nodiscard]] int descriptor() const { return file_.get(); }
    void write(std::string_view content) { writeAll(file_.get(), content, final_); }
    void commit(Durability durability);

private:
    void giveName();

    std::filesystem::path directory_;
    std::filesystem::path final_;
    std::filesystem::path pending_;
    mode_t mode_;
    UniqueFd file_;
    bool named_ = false;
};

} // namespace Common
