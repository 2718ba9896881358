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

/// A Filesystem error: the text, ": " and the text of the current errno.
[[nodiscard]] Error filesystemError(const std::string& words);

/// Whether a text is one ordinary path component: 1 to 255 bytes, neither "." nor "..", without "/" and
/// control characters.
[[nodiscard]] bool isOrdinaryName(std::string_view name) noexcept;

// The next throw when the question cannot be answered this time, as after an input or output error.
// Absent is only what certainly does not exist, also below a file or behind links in a circle.

/// Whether an errno says that.
[[nodiscard]] bool meansAbsence(int error) noexcept;

/// The status of what is at a path; nothing when there is nothing.
/// @param flags  of fstatat(2): AT_SYMLINK_NOFOLLOW for a link's own
[[nodiscard]] std::optional<struct stat> statusOf(const std::filesystem::path& path, int flags = 0);

/// Whether a path leads to something, links followed.
[[nodiscard]] bool exists(const std::filesystem::path& path);

/// Whether two statuses are of one file, or two paths lead to one that exists.
[[nodiscard]] bool isSameFile(const struct stat& first, const struct stat& second) noexcept;
[[nodiscard]] bool isSameFile(const std::filesystem::path& first, const std::filesystem::path& second);

/// The target of a symbolic link as it is stored; nothing for anything else.
[[nodiscard]] std::optional<std::filesystem::path> linkTarget(const std::filesystem::path& path);

/// The paths of a directory's entries, in directory order.
[[nodiscard]] std::vector<std::filesystem::path> entriesOf(const std::filesystem::path& directory);

/// What openWithin() does with links that lead out of the directory, in openat2(2)'s terms.
enum class Resolve {
    Beneath, ///< fails with EXDEV, also for any absolute link
    InRoot,  ///< the directory stands for "/": absolute links and ".." start over at it, as after chroot(2)
};

/// Opens a path below a directory by openat2(2), which needs Linux 5.6.
/// @param flags  of open(2); close-on-exec is added
/// @return nothing with errno set when it cannot be opened
[[nodiscard]] UniqueFd openWithin(int directory, const std::filesystem::path& path, int flags,
                                  Resolve resolve) noexcept;

/// Opens a regular file for reading, links followed. It is the descriptor that is checked, and a FIFO or a
/// device is not waited for.
/// @return nothing with errno set when it cannot be opened; EISDIR or EINVAL when it is not a regular file
[[nodiscard]] UniqueFd openRegularFile(const std::filesystem::path& file) noexcept;

/// The same for a file that has to be there. Throws Error, code Filesystem, with the reason alone: the caller
/// names the file.
[[nodiscard]] UniqueFd openExistingFile(const std::filesystem::path& file);

/// The status of an open file.
[[nodiscard]] struct stat statusOf(int descriptor);

/// Bytes of an open file.
[[nodiscard]] std::uint64_t sizeOf(int descriptor);

/// Reads a regular file; never blocks on anything else.
/// @param limit  the largest size in bytes that is accepted
/// @return nothing when there is no such file or a link leads nowhere
/// Throws FileNotFound as well, for what is not a regular file or too large.
[[nodiscard]] std::optional<std::string> readRegularFile(const std::filesystem::path& file,
                                                         std::size_t limit);

/// How readRegularFile() or one like it is called.
using FileReader = std::function<std::optional<std::string>(const std::filesystem::path&, std::size_t)>;

/// The same for a file that has to exist: otherwise throws FileNotFound.
[[nodiscard]] std::string readExistingFile(const std::filesystem::path& file, std::size_t limit);

/// Deletes a file, a link or a directory with all that is in it. Links are deleted, never followed, also not
/// when one replaces a directory during the call. Directories that deny their owner access are made
/// accessible if the caller owns them. A path that does not exist is not a failure; the first failure ends
/// it. Each level of directories takes a file descriptor (RLIMIT_NOFILE).
void removeTree(const std::filesystem::path& path);

/// Makes a directory that every user may read, mode 0755 whatever the umask is. A failure leaves none, but a
/// process killed here may leave one with the umask's mode.
/// @param parent  descriptor of the directory that a relative path starts from, or AT_FDCWD
/// @return false with errno set when it cannot be made, EEXIST when something is there
[[nodiscard]] bool makePublicDirectory(int parent, const std::filesystem::path& path) noexcept;

/// The same for a directory with its missing parents. A directory that exists keeps its mode.
void makePublicDirectories(const std::filesystem::path& path);

/// Waits until a directory's own entries are on disk.
void flushDirectory(const std::filesystem::path& directory);

/// Waits until all that was written to the file system that holds a directory is on disk.
void flushFileSystem(const std::filesystem::path& directory);

/// Makes or replaces a symbolic link in one step. An empty directory in its place is replaced as well.
void replaceLink(const std::filesystem::path& link, const std::filesystem::path& target);

/// Reads until the buffer is full or the file ends.
/// @param offset  where to begin, without moving the descriptor's own; else there
/// @return number of bytes; nothing, with errno, when the file cannot be read
[[nodiscard]] std::optional<std::size_t> readAll(int descriptor, std::span<std::byte> buffer,
                                                 std::optional<std::uint64_t> offset = {}) noexcept;

/// Writes all bytes at the descriptor's offset.
/// @return false, with errno, when the file does not take them
[[nodiscard]] bool writeAll(int descriptor, std::span<const char> bytes) noexcept;

/// The same, with an error that names the file.
void writeAll(int descriptor, std::string_view bytes, const std::filesystem::path& path);

/// When a file that is put in place has to be on disk.
enum class Durability {
    Later, ///< with the flush that the caller makes for everything it wrote
    Now,   ///< content and name, before anything goes on
};

/// A file that appears under its name whole or not at all, in place of an existing file or link of that name.
/// Until then it is beside it under another name or none, readable and writable for its owner alone. Used by
/// one thread.
class AtomicFile {
public:
    struct Options {
        mode_t mode = 0644; ///< its permission bits, whatever the umask is
        /// Whether other processes may write the same file at the same time. If none does, the other name is
        /// always the same, and what an interrupted process left is replaced. Else the file has no name
        /// before commit(), so that an interruption until then leaves nothing; where the file system has no
        /// such files (open(2), O_TMPFILE), it has one of this process.
        bool concurrentWriters = false;
    };

    /// @param directory  of the file; empty: the working directory, as parent_path() of a mere name
    AtomicFile(const std::filesystem::path& directory, const std::string& name)
        : AtomicFile(directory, name, Options{}) {}
    AtomicFile(const std::filesystem::path& directory, const std::string& name, const Options& options);
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    /// To read what was written; it is appended at the descriptor's offset.
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
