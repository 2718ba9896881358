#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Testbed {

enum class End { Finished, Failed, Killed };

/// Runs an action in a child process of its own and kills that just before its n-th call to the kernel that
/// changes a file system. Calls that only wait for the disk return at once: the kernel keeps what a killed
/// process wrote.
/// @param callsBefore  how many changing calls are let through
/// @return Failed when the action threw
End runInterrupted(unsigned callsBefore, const std::function<void()>& action);

/// Runs an action in a child process to its end.
/// @return in their order the calls that change a file system, "change", those that put a name in place or
///         take one away with the path, as "link PATH" and "remove PATH", and those that wait for the disk:
///         "fsync", "syncfs"
std::vector<std::string> recordCalls(const std::function<void()>& action);

/// The same as runInterrupted() without an interruption.
End runInChild(const std::function<void()>& action);

} // namespace Testbed
