#pragma once

#include <filesystem>
#include <optional>
#include <sys/types.h>

namespace Devkit {

/// Finds a process that uses a file below the directory: it executes or maps the file, has it open (as a
/// shell has its script) or has its working directory there. This process is left out. Only root sees
/// processes of other users. Any thread.
/// @param directory  canonical path
/// Throws std::filesystem::filesystem_error when a process cannot be read this time.
[[nodiscard]] std::optional<pid_t> findProcessUsing(const std::filesystem::path& directory);

} // namespace Devkit
