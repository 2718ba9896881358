#pragma once

#include <filesystem>
#include <string>
#include <sys/types.h>

namespace Common {

/// Starts a dbus-daemon for this user alone, without any service of the host. Returns when it accepts
/// connections. It is killed when the thread that started it ends.
/// @param socket  where it listens; its configuration is a file beside it. Letters, digits and "/_-." only
/// @param output  takes what it writes
/// @param limits  further configuration elements, for example "<limit name='...'>1</limit>"
/// @return its process identifier; the caller waits for it
/// Throws std::system_error, Error and, when it ends at once, std::runtime_error.
[[nodiscard]] pid_t startPrivateBus(const std::filesystem::path& socket, int output,
                                    const std::string& limits = {});

} // namespace Common
