#pragma once

#include "common/TemporaryDirectory.h"
#include "common/UniqueFd.h"

#include <filesystem>
#include <string>

namespace Testbed {

/// A directory of a test's own.
struct ScratchDirectory : Common::TemporaryDirectory {
    ScratchDirectory()
        : TemporaryDirectory(std::filesystem::temp_directory_path(), "vendara-test") {}
};

/// Writes a file, making the directories above it.
void writeFile(const std::filesystem::path& file, const std::string& content);

[[nodiscard]] std::string readFile(const std::filesystem::path& file);
/// The same of an open file, from its start.
[[nodiscard]] std::string readFile(const Common::UniqueFd& file);

/// The value of an extended attribute, not of what a link leads to; empty without it.
[[nodiscard]] std::string extendedAttribute(const std::filesystem::path& file, const char* name);

/// A line for everything below a directory: path, mode, link target or content hash. Equal before and after
/// means that nothing was touched.
[[nodiscard]] std::string digestOfTree(const std::filesystem::path& directory);

} // namespace Testbed
