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

/// What an installation of a package file would find.
struct Inspection {
    struct File {
        std::string path;          ///< in the payload
        std::string place;         ///< where the system would see it; empty: it is not mapped
        bool isPlaceTaken = false; ///< by what a mapping never replaces
    };

    /// What a file says of itself whose signatures are refused. Anybody may have written it.
    struct Claims {
        PackageIdentity identity; ///< without the names in the manifest
        std::string architecture;
        std::vector<PackageSignatures::Cms> signatures;
        std::optional<std::string> reason; ///< why they do not hold, where the platform's library says it
    };

    std::optional<Package> package;         ///< nothing when the file itself is refused
    std::optional<Claims> claims;           ///< exists only when that is for its signatures
    std::string existingVersion;            ///< prepared or else installed; empty: a first installation
    std::vector<File> files;                ///< without directories
    std::uint64_t size = 0;                 ///< bytes of the files
    std::optional<std::uint64_t> available; ///< bytes that the database's file system has free
    std::optional<Common::Error> refusal;   ///< what the installation would fail with
};

/// The system that a package is inspected for.
struct InspectedSystem {
    DatabaseLocation database;
    std::filesystem::path root = "/"; ///< stands for "/" in the places of files
    std::string architecture;         ///< of the packages that it takes, beside "noarch"
    Authorities authorities;
};

/// Looks at a package file, at the database and at the system directories, and changes none of them.
/// The refusal is the first of: what Package::fromFile() throws; Filesystem for what could not be read;
/// BadPackageArchitecture; DowngradeAttempt or UpgradeAlreadyPrepared; Filesystem for a place that is taken
/// or too little space. From BadPackageArchitecture on the rest of the result is complete all the same.
/// One thread at a time, as Common::Rpm::Reader.
/// @param watch  follows the validation of the file, as Package::fromFile() takes it
[[nodiscard]] Inspection inspect(const std::filesystem::path& file, const InspectedSystem& system,
                                 const ExtractionWatch& watch = {});

} // namespace Core::ZUL
