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
    std::filesystem::path output;         ///< may be the package itself; its directory takes a copy
    std::optional<Identity> developer{};  ///< signs the package and its files
    std::optional<Identity> client{};     ///< signs the package
    std::vector<std::string> trustlets{}; ///< see signFiles()
    bool replaces = false;                ///< signatures of the same roles
    bool evenBroken = false;              ///< signs what no device installs, too; for tests of devices
    bool onlyDigests = false;             ///< finds the digests without a signature and writes no package
    DigestFile* digests = nullptr;        ///< has the signatures, where the identities have no keys
    std::function<void(std::uint64_t done, std::uint64_t total)> progress{}; ///< bytes of its reading
};

/// Writes the package with the signatures that it has and those that are asked for. The output is replaced as
/// a whole, and only when all steps succeeded; a link stays, and what it leads to is replaced. Nothing is
/// written while request.digests misses signatures. Throws std::exception, whose text names the path, for a
/// package that librpm does not accept, that is not one whole binary package
/// (Common::Rpm::requireWholePackage()) or whose name, version or manifest is not valid
/// (Core::ZUL::withManifest()), that has a signature of the same role already or a damaged one, for an
/// identity of another role, and for an output that is there and not a regular file. Where both roles are
/// replaced, what is behind the payload is not read: damaged signatures go too.
void signPackage(const SignRequest& request);

/// What an output replaces: where it is a link, what that leads to. Throws std::exception for what is there
/// and not a regular file.
[[nodiscard]] std::filesystem::path placeOf(const std::filesystem::path& output);

/// Writes the package without what is behind its payload: its signatures, also damaged ones. The output is as
/// for signPackage(). Throws std::exception, whose text names the path, for a package whose length is not
/// known (Common::Rpm::packageLength()).
void stripPackage(const std::filesystem::path& package, const std::filesystem::path& output);

} // namespace Signing
