#pragma once

#include <sys/types.h>
#include <vector>

namespace Devkit {

/// Makes this process the parent of its descendants whose own parents end. Throws Error, code Filesystem.
void adoptDescendants();

/// Kills all descendants, once adoptDescendants() was called, and waits for their end. Main thread only.
/// @return children of other users, which may not be killed. They are not waited for.
std::vector<pid_t> killDescendants();

} // namespace Devkit
