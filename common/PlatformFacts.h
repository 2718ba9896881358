#pragma once

#include "common/Names.h"

#include <filesystem>
#include <string>

namespace Common {

/// The processor architecture that packages must be built for, for example "aarch64": the platform triple's
/// first field, or the kernel's machine name where there is no platform file. Read afresh at every call. Any
/// thread.
/// @param platformFile  rpm's platform file (rpm(8), FILES)
/// Throws Error, code Internal.
[[nodiscard]] std::string
getPlatformArchitecture(const std::filesystem::path& platformFile = Names::Files::rpmPlatform);

/// The operating system's version: the value of VERSION_ID as it stands in os-release(5), quotes included.
/// Read afresh at every call. Any thread.
/// Throws Error, code Internal.
[[nodiscard]] std::string getOsVersion(const std::filesystem::path& osReleaseFile = Names::Files::osRelease);

} // namespace Common
