#pragma once

#include "common/UniqueFd.h"

#include <filesystem>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace Common {

/// How a program is started. A descriptor of -1 means the default.
struct SpawnOptions {
    std::vector<std::string> environment{}; ///< further variables, "NAME=value"
    std::filesystem::path directory{};      ///< working directory; empty: this process's
    int input = -1;                         ///< standard input [/dev/null]
    int output = -1;                        ///< standard output and error [this process's]
    int inherited = -1;                     ///< a descriptor that the program gets under its number [none]
    bool terminal = false; ///< keeps this process's standard input, group and ignored signals, for a command
                           ///< in a terminal; otherwise the program leads a session of its own
};

/// Starts a program with no signal blocked. It is killed when the thread that started it ends. Any thread.
/// @param arguments  the program first, looked up in its own PATH when it has no "/"
/// @return its process identifier; the caller waits for it
/// Throws std::system_error when the program cannot be executed, with the reason as its code; Error, code
/// Filesystem, when no process can be created.
[[nodiscard]] pid_t spawn(const std::vector<std::string>& arguments, const SpawnOptions& options = {});

/// A descriptor that becomes readable when the process has ended (pidfd_open(2)); nothing, with errno ESRCH,
/// when there is no such process. Any thread. Throws Error, code Filesystem.
[[nodiscard]] UniqueFd openProcess(pid_t process);

/// The ends of a new pipe, to read from and to write to. Programs that are started do not get them. Any
/// thread. Throws Error, code Filesystem.
[[nodiscard]] std::pair<UniqueFd, UniqueFd> makePipe();

/// Waits for the end of a child without a limit, also when signals interrupt it. Any thread.
void reap(pid_t child) noexcept;

/// The exit status in a wait status (wait(2)): the program's, or 128 and the signal's number.
[[nodiscard]] int exitStatusOf(int waitStatus) noexcept;

} // namespace Common
