#pragma once

#include "common/UniqueFd.h"

#include <filesystem>
#include <string>

namespace Testbed {

/// A new empty directory, removed with all that is in it.
class ScratchDirectory {
public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

/// Writes a file, making the directories above it.
void writeFile(const std::filesystem::path& file, const std::string& content);

[[nodiscard]] std::string readFile(const std::filesystem::path& file);
/// The same of an open file, wherever its offset is.
[[nodiscard]] std::string readFile(const Common::UniqueFd& file);

/// A line for everything below a directory: path, mode, link target or content hash. Equal before and after
/// means that nothing was touched.
[[nodiscard]] std::string digestOfTree(const std::filesystem::path& directory);

} // namespace Testbed
