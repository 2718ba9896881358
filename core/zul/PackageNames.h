#pragma once

#include "core/zul/Package.h"

#include <string>

namespace Core::ZUL {

// Names from packages become parts of paths and travel on buses, so each has to be one ordinary path
// component (Common::isOrdinaryName()) and text that a bus takes (Common::isBusText()). Any thread.

/// The name of a package's directory: the identifier without the one "/" it may begin with. Throws Error,
/// code BadPackageID, for what Common::requirePackageId() refuses.
[[nodiscard]] std::string directoryName(const std::string& packageId);

/// Checks the identifier as directoryName() does, and throws Error, code BadPackage, for a version,
/// organisation name or application name that is not such a name, and for a version with a name that the
/// database keeps for itself.
void requireOrdinaryNames(const Package& package);

} // namespace Core::ZUL
