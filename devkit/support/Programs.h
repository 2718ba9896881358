#pragma once

#include <filesystem>
#include <string>

namespace Devkit {

/// Finds a program that was built or installed together with this one. Throws std::runtime_error.
[[nodiscard]] std::filesystem::path findProgram(const std::string& name);

} // namespace Devkit
