#pragma once

#include "core/zul/Package.h"

#include <string>

namespace Core::ZUL {

// Names from packages become parts of paths, so each has to be one ordinary path component. Any thread.

/// The name of a package's directory: the identifier without the one "/" it may begin with. Throws Error,
/// code BadPackageID, for anything but an ordinary path component.
[[nodiscard]] std::string directoryName(const std::string& packageId);

/// Checks the identifier as directoryName() does, and throws Error, code BadPackage, for a version,
/// organisation name or application name that is no ordinary path component, and for a version with a name
/// that the database keeps for itself.
void requireOrdinaryNames(const Package& package);

} // namespace Core::ZUL
