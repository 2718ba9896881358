#pragma once

#include "common/Error.h"
#include "common/rpm/Reader.h"
#include "common/rpm/WholePackage.h"
#include "core/zul/PackageIdentity.h"

#include <optional>
#include <string>

namespace Core::ZUL {

/// By the header alone. Throws Common::Error: BadPackage for missing tags, and what PackageIdentity refuses.
[[nodiscard]] PackageIdentity identityOf(const Common::Rpm::Reader& header);

/// The file of the payload that is the package's manifest.
[[nodiscard]] std::string manifestPathOf(const PackageIdentity& package);

/// The identity with the names in the manifest, for which the payload is unpacked as far as that.
///
/// Throws Common::Error, BadPackage: a manifest that is damaged, too large or not a regular file, or whose
/// names PackageIdentity refuses; a payload that librpm cannot unpack here. What cannot be read or done this
/// time is Filesystem or Internal.
/// @param refusal   why the package is refused in the end, if it is: thrown when the search becomes too long
/// @param progress  called between files with the bytes unpacked so far
/// @return nothing when the payload has no manifest
[[nodiscard]] std::optional<PackageIdentity> withManifest(
    const PackageIdentity& package, const Common::Rpm::Reader& reader,
    const std::optional<Common::Error>& refusal = {},
    const Common::Rpm::ReadingProgress& progress = [](std::uint64_t) {});

} // namespace Core::ZUL
