#pragma once

#include <functional>

namespace Testbed {

enum class End { Finished, Failed, Killed };

/// Runs an action in a child process of its own and kills that just before its n-th call to the kernel that
/// changes a file system. Calls that only wait for the disk return at once: the kernel keeps what a killed
/// process wrote.
/// @param callsBefore  how many changing calls are let through
/// @return Failed when the action threw
End runInterrupted(unsigned callsBefore, const std::function<void()>& action);

/// The same without an interruption.
End runInChild(const std::function<void()>& action);

} // namespace Testbed
