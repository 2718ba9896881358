#pragma once

#include "common/rpm/Reader.h"
#include "platform/reference/signcms/SignedBlob.h"

#include <string>
#include <vector>

namespace Signing {

/// Signs every regular file of a package that its payload carries, over the digest in the package's header.
/// The layouts of both signatures are described in docs/package-signatures.md.
/// @param certificate  the developer's
/// @param sign         signs with the key that belongs to it
/// @param trustlets    absolute paths; the file that is there, or all files below, get a trustlet signature
/// @return by rising index in the package's file list
/// Throws std::runtime_error for a file list that no device takes (Common::Rpm::FileList), for file digests
/// that are not SHA-2, and for a trustlet path without a file.
[[nodiscard]] std::vector<PackageSignatures::FileSignatures>
signFiles(const Common::Rpm::Reader& package, const X509& certificate,
          const PackageSignatures::DigestSigner& sign, const std::vector<std::string>& trustlets);

} // namespace Signing
