#pragma once

#include "tools/vendara-sign/Identity.h"

#include <optional>
#include <string>

namespace Signing {

/// Reads a line from the controlling terminal without echo. A signal that ends or stops the program does so
/// at once, with the echo on again. Used by a program with one thread.
/// @param prompt  is written first
/// @return nothing without a terminal, at its end and for a line longer than PEM_BUFSIZE
[[nodiscard]] std::optional<Secret> promptForPassphrase(const std::string& prompt);

} // namespace Signing
