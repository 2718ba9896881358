#pragma once

#include <filesystem>
#include <string>

namespace Common {

/// A new empty directory with mode 0700; the destructor removes it and its content. Used by one thread.
class TemporaryDirectory {
public:
    /// @param parent  created if missing, with missing parents, mode 0755
    /// @param name    the first part of the directory's name
    /// Throws Error, code Filesystem.
    explicit TemporaryDirectory(const std::filesystem::path& parent, const std::string& name = "vendara");
    /// A failure to remove it is logged.
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

} // namespace Common
