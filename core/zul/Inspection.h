#pragma once

#include "common/Error.h"
#include "core/zul/DatabaseLocation.h"
#include "core/zul/package/Package.h"
#include "platform/signcms/PackageSignatures.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Core::ZUL {

/// The result that an installation of a package file would have.
struct Inspection {
    struct File {
        std::string path;          ///< in the payload
        std::string place;         ///< of its mapping in a system directory; empty: not mapped
        bool isPlaceTaken = false; ///< by a file that a mapping never replaces
    };

    /// The unverified properties of a file whose signatures are refused; anyone may have written them.
    struct Claims {
        PackageIdentity identity; ///< without the names in the manifest
        std::string architecture;
        std::vector<PackageSignatures::Cms> signatures;
        std::optional<std::string> reason; ///< why they are refused, if the platform's library reports it
    };

    std::optional<Package> package;         ///< nothing when the file itself is refused
    std::optional<Claims> claims;           ///< exists only when the signatures are refused
    std::string existingVersion;            ///< prepared or else installed; empty: first installation
    std::vector<File> files;                ///< without directories
    std::uint64_t size = 0;                 ///< bytes of the files
    std::optional<std::uint64_t> available; ///< free bytes of the database's file system
    std::optional<Common::Error> refusal;   ///< the error of the installation
};

/// The system that a package is inspected for.
struct InspectedSystem {
    DatabaseLocation database;
    std::filesystem::path root = "/"; ///< takes the place of "/" in the places of files
    std::string architecture;         ///< accepted in addition to "noarch"
    Authorities authorities;
};

/// Reads a package file, the database and the system directories, and changes none of them.
/// The refusal is the first of: what Package::fromFile() throws; Filesystem for a file that cannot be read;
/// BadPackageArchitecture; DowngradeAttempt or UpgradeAlreadyPrepared; Filesystem for a place that is taken
/// or too little space. From BadPackageArchitecture on the other members are complete despite the refusal.
/// One thread at a time, as Common::Rpm::Reader.
/// @param watch  see Package::fromFile()
[[nodiscard]] Inspection inspect(const std::filesystem::path& file, const InspectedSystem& system,
                                 const ExtractionWatch& watch = {});

} // namespace Core::ZUL
