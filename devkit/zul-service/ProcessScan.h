#pragma once

#include <filesystem>
#include <optional>
#include <sys/types.h>

namespace Devkit {

/// Finds a process that uses a file below the directory: executes or maps it, holds it open (as a shell holds
/// its script) or works in the directory. This process itself does not count. Processes of other users are
/// seen by root only. Any thread.
/// @param directory  canonical path
[[nodiscard]] std::optional<pid_t> findProcessUsing(const std::filesystem::path& directory);

} // namespace Devkit
