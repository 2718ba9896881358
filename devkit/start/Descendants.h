#pragma once

#include <sys/types.h>
#include <vector>

namespace Devkit {

/// Makes this process the parent of descendants whose parents end (PR_SET_CHILD_SUBREAPER). Throws Error,
/// code Filesystem.
void adoptDescendants();

/// Kills all descendants and waits for their end. Call adoptDescendants() first. Main thread only.
/// @return children of other users, which cannot be killed and are not waited for
std::vector<pid_t> killDescendants();

} // namespace Devkit
