#pragma once

#include "core/zul/package/Package.h"
#include "core/zul/package/PackageFile.h"
#include "platform/signcms/PackageSignatures.h"

#include <filesystem>

namespace Core::ZUL {

/// Unpacks a package file, which need not be validated, as Package::extract() does. Throws as that does, and
/// other std::exceptions. Used by one thread at a time.
/// @param developer  has the signatures of the files to be signed; if null, such a file is
///                   BadPackageSignature
void unpack(const PackageFile& file, const PackageIdentity& package, const PackageSignatures::Cms* developer,
            const std::filesystem::path& destination, const AttributeWriter& attributes,
            const ExtractionWatch& watch = {});

} // namespace Core::ZUL
