#pragma once

#include <filesystem>
#include <string>
#include <sys/types.h>

namespace Common {

/// Starts a dbus-daemon for this user only, without activatable services. Returns when it accepts
/// connections. The kernel kills it when the thread that started it ends.
/// @param socket  path to listen on, with letters, digits and "/_-." only; the configuration file is created
///                beside it
/// @param output  descriptor for its standard output and error
/// @param limits  further configuration elements, for example "<limit name='...'>1</limit>"
/// @return its process ID; the caller waits for it
/// Throws std::system_error, Error and, if it fails to start, std::runtime_error.
[[nodiscard]] pid_t startPrivateBus(const std::filesystem::path& socket, int output,
                                    const std::string& limits = {});

} // namespace Common
