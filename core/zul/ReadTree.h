#pragma once

#include "common/Error.h"
#include "common/UniqueFd.h"

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace Core::ZUL {

/// Read-only access to a file tree whose root takes the place of "/". Links are resolved within this root, as
/// after chroot(2). Paths are absolute. Failures to read are Error, code Filesystem; Common::meansAbsence()
/// defines which files are absent, except that a path that is too long is a failure. Any thread.
class ReadTree {
public:
    using Visitor = std::function<void(const std::filesystem::path&, const struct stat&)>;
    using FailureHandler = std::function<void(const Common::Error&)>;

    explicit ReadTree(const std::filesystem::path& root);

    /// The status of a file; nothing if it is absent.
    /// @param flags  O_NOFOLLOW for that of a link itself
    [[nodiscard]] std::optional<struct stat> status(const std::filesystem::path& path, int flags = 0) const;

    /// Whether two paths lead to the same existing file.
    [[nodiscard]] bool isSameFile(const std::filesystem::path& first,
                                  const std::filesystem::path& second) const;

    /// The stored target of a symbolic link; nothing if the path is not a link.
    [[nodiscard]] std::optional<std::filesystem::path> linkTarget(const std::filesystem::path& path) const;

    /// The names in a directory, sorted; none if there is no directory.
    [[nodiscard]] std::vector<std::string> namesIn(const std::filesystem::path& directory) const;

    /// Reads a regular file, as Common::readRegularFile().
    [[nodiscard]] std::optional<std::string> readFile(const std::filesystem::path& file,
                                                      std::size_t limit) const;

    /// The extended attributes of a file, link or directory in the namespace "security".
    /// @param flags  O_NOFOLLOW for those of a link itself
    [[nodiscard]] std::map<std::string, std::string> securityAttributes(const std::filesystem::path& path,
                                                                        int flags = 0) const;

    /// Calls the visitor with the path and the status of every file and link below a directory. Links are not
    /// followed.
    /// @param failed  called for each failure to read, after which the walk continues; without it the first
    ///                failure is thrown
    void walk(const std::filesystem::path& directory, const Visitor& visit,
              const FailureHandler& failed = {}) const;

private:
    [[nodiscard]] Common::UniqueFd open(const std::filesystem::path& path, int flags) const;

    Common::UniqueFd root_;
};

} // namespace Core::ZUL
