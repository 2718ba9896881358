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

/// A tree of files that is only looked at, below the directory that stands for "/". Links in it are followed
/// as the running system would follow them, and lead nowhere else. Paths are absolute. What cannot be read
/// this time is Error, code Filesystem; absent is what Common::meansAbsence() says. Any thread.
class ReadTree {
public:
    using Visitor = std::function<void(const std::filesystem::path&, const struct stat&)>;
    using FailureHandler = std::function<void(const Common::Error&)>;

    explicit ReadTree(const std::filesystem::path& root);

    /// The status of what is at a path; nothing when there is nothing.
    /// @param flags  O_NOFOLLOW for a link's own
    [[nodiscard]] std::optional<struct stat> status(const std::filesystem::path& path, int flags = 0) const;

    /// Whether two paths lead to one file that exists.
    [[nodiscard]] bool isSameFile(const std::filesystem::path& first,
                                  const std::filesystem::path& second) const;

    /// The target of a symbolic link as it is stored; nothing for anything else.
    [[nodiscard]] std::optional<std::filesystem::path> linkTarget(const std::filesystem::path& path) const;

    /// The names in a directory, sorted; none where there is no directory.
    [[nodiscard]] std::vector<std::string> namesIn(const std::filesystem::path& directory) const;

    /// Reads a regular file, as Common::readRegularFile().
    [[nodiscard]] std::optional<std::string> readFile(const std::filesystem::path& file,
                                                      std::size_t limit) const;

    /// The extended attributes of a file, link or directory in the namespace "security".
    /// @param flags  O_NOFOLLOW for a link's own
    [[nodiscard]] std::map<std::string, std::string> securityAttributes(const std::filesystem::path& path,
                                                                        int flags = 0) const;

    /// Calls the visitor with the path and the own status of everything below a directory that is not a
    /// directory itself. Links to directories are visited and not followed.
    /// @param failed  is called with what could not be read, and the walk goes on; without it that is thrown
    void walk(const std::filesystem::path& directory, const Visitor& visit,
              const FailureHandler& failed = {}) const;

private:
    [[nodiscard]] Common::UniqueFd open(const std::filesystem::path& path, int flags) const;

    Common::UniqueFd root_;
};

} // namespace Core::ZUL
