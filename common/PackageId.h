#pragma once

#include <string_view>

namespace Common {

/// Whether a text can be a package identifier. It names a directory of the database and travels on both
/// buses, so it has to be one ordinary path component (see isOrdinaryName()) and text that a bus takes (see
/// isBusText()). Any thread.
[[nodiscard]] bool isPackageId(std::string_view id) noexcept;

/// Throws Error, code BadPackageID, where isPackageId() is false. The message has the beginning of the text,
/// printable, and may itself travel on a bus. Any thread.
void requirePackageId(std::string_view id);

} // namespace Common
