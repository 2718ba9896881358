#pragma once

#include "common/TemporaryDirectory.h"
#include "common/UniqueFd.h"

#include <filesystem>
#include <string>

namespace Testbed {

/// A temporary directory of one test.
struct ScratchDirectory : Common::TemporaryDirectory {
    ScratchDirectory()
        : TemporaryDirectory(std::filesystem::temp_directory_path(), "vendara-test") {}
};

/// Writes a file, making the directories above it.
void writeFile(const std::filesystem::path& file, const std::string& content);

[[nodiscard]] std::string readFile(const std::filesystem::path& file);
/// The same of an open file, from its start.
[[nodiscard]] std::string readFile(const Common::UniqueFd& file);

/// The value of an extended attribute, links not followed; empty if the file has no such attribute.
[[nodiscard]] std::string extendedAttribute(const std::filesystem::path& file, const char* name);

/// One line for each entry below a directory: path, mode, link target or content hash. If it is equal before
/// and after a call, the call changed nothing.
[[nodiscard]] std::string digestOfTree(const std::filesystem::path& directory);

} // namespace Testbed
