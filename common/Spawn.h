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
    int inherited = -1;                     ///< descriptor that the program inherits with its number [none]
    bool terminal = false; ///< for a command in a terminal: keeps this process's standard input, process
                           ///< group and ignored signals; otherwise the program leads its own session
};

/// Starts a program without blocked signals. The kernel kills it when the thread that started it ends. Any
/// thread.
/// @param arguments  the program first; without "/" it is searched in the PATH of its environment
/// @return its process ID; the caller waits for it
/// Throws std::system_error with the reason when the program cannot be executed; Error, code Filesystem, when
/// no process can be created.
[[nodiscard]] pid_t spawn(const std::vector<std::string>& arguments, const SpawnOptions& options = {});

/// A descriptor that becomes readable when the process has ended (pidfd_open(2)); nothing, with errno ESRCH,
/// if there is no such process. Any thread. Throws Error, code Filesystem.
[[nodiscard]] UniqueFd openProcess(pid_t process);

/// The read end and the write end of a new pipe, both close-on-exec. Any thread. Throws Error, code
/// Filesystem.
[[nodiscard]] std::pair<UniqueFd, UniqueFd> makePipe();

/// Waits for the end of a child without a time limit; restarts after signals. Any thread.
void reap(pid_t child) noexcept;

/// The exit status in a wait status (wait(2)): the program's, or 128 plus the signal's number.
[[nodiscard]] int exitStatusOf(int waitStatus) noexcept;

} // namespace Common
