#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <system_error>
#include <vector>

namespace Devkit {

/// The result of a system call. Throws std::system_error with errno when it is negative.
/// @param what  the error's words
int checked(int result, const char* what);

/// The exit status that a wait status tells (wait(2)): the program's, or 128 and the signal's number.
[[nodiscard]] int exitStatusOf(int waitStatus);

/// How a program is started.
struct SpawnOptions {
    std::vector<std::string> environment; ///< further variables, "NAME=value"
    int output = -1;              ///< takes the place of standard output and error; -1: this process's
    bool terminal = false;        ///< keeps standard input and the process group; otherwise the program
                                  ///< reads /dev/null and leads a session of its own
    std::function<int()> prepare; ///< runs in the child first and returns 0 or an errno value; makes
                                  ///< system calls only, since other threads may hold any lock
};

/// A program was not started because SpawnOptions::prepare failed.
struct PreparationError : std::system_error {
    using std::system_error::system_error;
};

/// A program was not started because the system refused to execute its file, or found none.
struct ExecutionError : std::system_error {
    using std::system_error::system_error;
};

/// Starts a program with no signal blocked. It is killed when the thread that started it ends.
/// @param arguments  the program first, looked up in its own PATH when it has no "/"
/// @return its process identifier; the caller waits for it
/// Throws std::system_error when the program cannot be started, PreparationError and ExecutionError among
/// them.
[[nodiscard]] pid_t spawn(const std::vector<std::string>& arguments, const SpawnOptions& options = {});

} // namespace Devkit
