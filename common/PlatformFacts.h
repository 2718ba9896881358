#pragma once

#include "common/Names.h"

#include <filesystem>
#include <string>

namespace Common {

/// The processor architecture that packages must be built for, for example "aarch64": the first field of the
/// platform triple or, without a platform file, the kernel's machine name. Not cached. Any thread.
/// @param platformFile  rpm's platform file (rpm(8), FILES)
/// Throws Error, code Internal.
[[nodiscard]] std::string
getPlatformArchitecture(const std::filesystem::path& platformFile = Names::Files::rpmPlatform);

/// The operating system's version: the value of VERSION_ID in os-release(5), with its quotes. Not cached. Any
/// thread.
/// Throws Error, code Internal.
[[nodiscard]] std::string getOsVersion(const std::filesystem::path& osReleaseFile = Names::Files::osRelease);

} // namespace Common
