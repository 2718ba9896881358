#pragma once

#include <functional>
#include <thread>

namespace Common {

/// Starts a thread; whoever takes it joins it. Throws Error, code Internal, when the system has no more of
/// them. Any thread.
[[nodiscard]] std::thread startThread(std::function<void()> work);

} // namespace Common
