#pragma once

#include "common/Error.h"
#include "common/rpm/Reader.h"
#include "common/rpm/WholePackage.h"
#include "core/zul/PackageIdentity.h"

#include <optional>
#include <string>

namespace Core::ZUL {

/// The identity in the header. Throws Common::Error: BadPackage for missing tags; and as PackageIdentity
/// does.
[[nodiscard]] PackageIdentity identityOf(const Common::Rpm::Reader& header);

/// The path of the package's manifest in the payload.
[[nodiscard]] std::string manifestPathOf(const PackageIdentity& package);

/// The identity with the names in the manifest. The payload is decompressed up to the manifest.
///
/// Throws Common::Error, BadPackage: a manifest that is damaged, too large or not a regular file, or whose
/// names PackageIdentity refuses; a payload that librpm cannot unpack. Other failures are Filesystem or
/// Internal.
/// @param refusal   a refusal that the caller already has; it is thrown if the search takes too long
/// @param progress  called between files with the bytes decompressed so far
/// @return nothing if the payload has no manifest
[[nodiscard]] std::optional<PackageIdentity> withManifest(
    const PackageIdentity& package, const Common::Rpm::Reader& reader,
    const std::optional<Common::Error>& refusal = {},
    const Common::Rpm::ReadingProgress& progress = [](std::uint64_t) {});

} // namespace Core::ZUL
