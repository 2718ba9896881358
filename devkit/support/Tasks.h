#pragma once

#include "common/bus/BusConnection.h"

#include <chrono>
#include <functional>
#include <sys/types.h>

namespace Devkit {

using Task = std::function<void()>;

/// Posts a task to the bus connection's loop when a process has ended, or at once if it does not exist. A
/// child need not be reaped first. Any thread. Throws Error and std::system_error.
void postWhenEnded(Common::BusConnection& bus, pid_t process, Task task);

/// Posts a task to the bus connection's loop after a time. Any thread.
void postAfter(Common::BusConnection& bus, std::chrono::milliseconds time, Task task);

} // namespace Devkit
