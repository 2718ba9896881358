#pragma once

#include "tools/vendara-sign/DigestFile.h"
#include "tools/vendara-sign/Identity.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Signing {

struct SignRequest {
    std::filesystem::path package;
    std::filesystem::path output;         ///< may be the package itself; its directory needs space for a copy
    std::optional<Identity> developer{};  ///< signs the package and its files
    std::optional<Identity> client{};     ///< signs the package
    std::vector<std::string> trustlets{}; ///< see signFiles()
    bool replaces = false;                ///< replaces signatures of the same roles
    bool allowInvalid = false;            ///< also signs packages that devices refuse; for tests
    bool onlyDigests = false;             ///< collects the digests without a signature and writes no package
    DigestFile* digests = nullptr;        ///< has the signatures if the identities have no keys
    std::function<void(std::uint64_t done, std::uint64_t total)> progress{}; ///< bytes read
};

/// Writes the package with its existing and the requested signatures. The output is replaced atomically, and
/// only when all steps succeeded; if it is a link, its target is replaced. Nothing is written while
/// request.digests lacks signatures. If both roles are replaced, the existing signatures are not read, so
/// they may be damaged. Throws std::exception, whose text names the path, for a package that librpm does not
/// accept, that is not one complete binary package (Common::Rpm::requireWholePackage()) or whose name,
/// version or manifest is not valid (Core::ZUL::withManifest()); for one that already has a signature of the
/// same role or a damaged signature; for an identity of another role; and for an output that exists and is
/// not a regular file.
void signPackage(const SignRequest& request);

/// The file that an output replaces: the target of a link, or the path itself. Throws std::exception if it
/// exists and is not a regular file.
[[nodiscard]] std::filesystem::path placeOf(const std::filesystem::path& output);

/// Writes the package without the data after its payload: its signatures, also damaged ones. For the output
/// see signPackage(). Throws std::exception, whose text names the path, for a package whose length is unknown
/// (Common::Rpm::packageLength()).
void stripPackage(const std::filesystem::path& package, const std::filesystem::path& output);

} // namespace Signing
