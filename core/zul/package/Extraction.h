#pragma once

#include "core/zul/package/Package.h"
#include "core/zul/package/PackageFile.h"
#include "platform/signcms/PackageSignatures.h"

#include <filesystem>

namespace Core::ZUL {

/// Unpacks a package file as Package::extract() describes it, also one that was not validated. Throws as that
/// does; may throw std::exception too. Used by one thread at a time.
/// @param developer  has the signatures of files that are to be signed; where it is null, such a file is
///                   BadPackageSignature
void unpack(const PackageFile& file, const PackageIdentity& package, const PackageSignatures::Cms* developer,
            const std::filesystem::path& destination, const AttributeWriter& attributes,
            const ExtractionWatch& watch = {});

} // namespace Core::ZUL
