#pragma once

#include <string_view>

namespace Common {

/// Whether a text can be a package identifier. It names a directory of the database and is sent on both
/// buses, so it must be a single path component (isOrdinaryName()) and a valid D-Bus string (isBusText()).
/// Any thread.
[[nodiscard]] bool isPackageId(std::string_view id) noexcept;

/// Throws Error, code BadPackageID, if isPackageId() is false. The message has the beginning of the text,
/// escaped, and is a valid D-Bus string. Any thread.
void requirePackageId(std::string_view id);

} // namespace Common
