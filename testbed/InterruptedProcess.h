#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Testbed {

/// Failed: the action threw Common::Error. Any other exception fails the call that runs the action.
enum class End { Finished, Failed, Killed };

/// Runs an action in a child process of its own and kills that just before its n-th call to the kernel that
/// changes a file system. Calls that only wait for the disk return at once: the kernel keeps what a killed
/// process wrote.
/// @param callsBefore  how many changing calls are let through
End runInterrupted(unsigned callsBefore, const std::function<void()>& action);

/// Runs an action in a child process to its end.
/// @return in their order the calls that change a file system, "change", those that put a name in place or
///         take one away with the path, as "make PATH", "link PATH" and "remove PATH", and those that wait
///         for the disk: "fsync", "syncfs"
std::vector<std::string> recordCalls(const std::function<void()>& action);

/// The same as runInterrupted() without an interruption.
End runInChild(const std::function<void()>& action);

/// How calls to the kernel about files fail, or calls of operator new.
struct Fault {
    const char* name;
    int error;         ///< ENOMEM: an allocation fails
    bool isPersistent; ///< all later calls fail too
    bool onlyChanges;  ///< only calls that change a file system fail; otherwise also those that read
};

/// Calls a function for each kind of fault and each n-th call until it returns that there was no such call.
/// The first of these calls is chosen by the number VENDARA_FAULT_SEED in the environment.
/// @param stride  distance of the calls that are tried; 1 when the environment has VENDARA_ALL_FAULTS
/// @param attempt  returns whether there was such a call
void forEachFault(unsigned stride, const std::function<bool(const Fault&, unsigned callsBefore)>& attempt);

/// Runs an action in a child process in which such calls fail.
/// @param callsBefore  how many calls of the kind that fails are let through
/// @return how it ended, and whether there was a call to fail
std::pair<End, bool> runWithFault(unsigned callsBefore, const Fault& fault,
                                  const std::function<void()>& action);

} // namespace Testbed
