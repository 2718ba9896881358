#pragma once

#include "common/rpm/Reader.h"
#include "platform/reference/signcms/SignedBlob.h"

#include <string>
#include <vector>

namespace Signing {

/// Signs every regular file of a package's payload, over the file's digest in the package's header.
/// The formats of both signatures are described in docs/package-signatures.md.
/// @param certificate  the developer's
/// @param sign         signs with the certificate's key
/// @param trustlets    absolute paths; the file, or all files below the directory, get a trustlet signature
/// @return in ascending order of the index in the package's file list
/// Throws std::runtime_error for a file list that devices refuse (Common::Rpm::FileList), for file digests
/// that are not SHA-2, and for a trustlet path without a file.
[[nodiscard]] std::vector<PackageSignatures::FileSignatures>
signFiles(const Common::Rpm::Reader& package, const X509& certificate,
          const PackageSignatures::DigestSigner& sign, const std::vector<std::string>& trustlets);

} // namespace Signing
