#include "core/zul/Inspection.h"

#include "common/Files.h"
#include "common/LogLine.h"
#include "common/rpm/FileList.h"
#include "common/rpm/Version.h"
#include "core/zul/Edge.h"
#include "core/zul/PackageDirectory.h"
#include "core/zul/ReadTree.h"
#include "core/zul/mapping/Mapping.h"
#include "core/zul/mapping/MappingPlan.h"
#include "core/zul/mapping/MappingRules.h"
#include "core/zul/package/ManifestNames.h"
#include "core/zul/package/PackageFile.h"
#include "core/zul/package/PackagePath.h"
#include "platform/pkgverify/FileWithCmses.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <utility>

namespace Core::ZUL {

namespace {

using Common::Error;
using Common::ErrorCode;

/// Whether a directory is not empty and has only mappings of the package: the installation removes it.
bool hasOnlyMappings(SystemTree& tree, const ReadTree& system, const std::filesystem::path& directory,
                     const std::filesystem::path& packageDirectory) {
    const auto names = system.namesIn(directory);
    return !names.empty() && std::all_of(names.begin(), names.end(), [&](const std::string& name) {
        const auto path = directory / name;
        const auto status = system.status(path, O_NOFOLLOW);
        return status && S_ISDIR(status->st_mode)
                   ? hasOnlyMappings(tree, system, path, packageDirectory)
                   : Mapping::isPlace(path) && Mapping(tree, path).belongsTo(packageDirectory);
    });
}

/// Whether a file or directory at the place prevents the mapping.
bool isTaken(SystemTree& tree, const ReadTree& system, const std::string& place,
             const std::filesystem::path& packageDirectory) {
    const Mapping mapping(tree, place);
    if (!mapping.exists() || mapping.belongsTo(packageDirectory) ||
        mapping.isReplaceable(packageDirectory.parent_path())) {
        return false;
    }
    const auto status = system.status(place, O_NOFOLLOW);
    return !status || !S_ISDIR(status->st_mode) || !hasOnlyMappings(tree, system, place, packageDirectory);
}

void listFiles(const InspectedSystem& system, Inspection& result) {
    const auto& package = *result.package;
    const Common::Rpm::FileList list(fileOf(package).reader().header());
    const PackagePath paths(package);
    const auto rules = mappingRules(package);
    SystemTree tree(system.root, SystemTree::Use::Look);
    const ReadTree read(system.root);
    for (int index = 0; index < list.size(); ++index) {
        const auto mode = rpmfilesFMode(list.get(), index);
        const bool isGhost = (rpmfilesFFlags(list.get(), index) & RPMFILE_GHOST) != 0;
        if (isGhost || (!S_ISREG(mode) && !S_ISLNK(mode))) {
            continue;
        }
        const std::unique_ptr<char, decltype(&std::free)> name(rpmfilesFN(list.get(), index), std::free);
        const auto packagePath = paths.toPackagePath(name.get());
        Inspection::File found{name.get(), placeOf(packagePath.native(), rules)};
        if (!found.place.empty() && !canBeMapped(packagePath)) {
            throw Error(ErrorCode::BadPackage, "file name can't be mapped: " + packagePath.native());
        }
        found.isPlaceTaken = !found.place.empty() &&
                             isTaken(tree, read, found.place, system.database.rootDirectory() / package.id());
        result.files.push_back(std::move(found));
        if (S_ISREG(mode) && list.firstLink(index) == index) {
            result.size += rpmfilesFSize(list.get(), index);
        }
    }
}

void findExisting(const PackageDirectory& directory, bool isPrepared, Inspection& result) {
    const auto link = isPrepared ? directory.next() : directory.current();
    if (directory.pointsToExistingVersion(link)) {
        result.existingVersion = PackageDirectory::versionNameOf(link);
    }
}

void findSpace(const InspectedSystem& system, Inspection& result) {
    // The temporary directory is on the same file system, and is made when it is needed.
    auto place = system.database.rootDirectory();
    while (!Common::exists(place)) {
        place = place.parent_path();
    }
    std::error_code unknown;
    const auto space = std::filesystem::space(place, unknown);
    if (!unknown) {
        result.available = space.available;
    }
}

void requireInstallable(const InspectedSystem& system, bool isPrepared, const Inspection& found) {
    found.package->requireArchitecture(system.architecture);
    if (const auto existing = Common::Rpm::Version::parse(found.existingVersion)) {
        requireHigher(*found.package, *existing, isPrepared);
    }
    for (const auto& each : found.files) {
        if (each.isPlaceTaken) {
            throw Error(ErrorCode::Filesystem,
                        "attempt to override system file with package mapping: " + each.place);
        }
    }
    if (found.available && found.size > *found.available) {
        throw Error(ErrorCode::Filesystem, "the files have " + std::to_string(found.size) + " bytes and " +
                                               std::to_string(*found.available) + " are free");
    }
}

void inspect(const std::filesystem::path& file, const InspectedSystem& system, const ExtractionWatch& watch,
             Inspection& result) try {
    result.package = Package::fromFile(file, system.authorities, watch);
    listFiles(system, result);
    const PackageDirectory directory(system.database.rootDirectory() / result.package->id());
    const bool isPrepared = directory.hasNextLink();
    findExisting(directory, isPrepared, result);
    findSpace(system, result);
    requireInstallable(system, isPrepared, result);
} catch (...) {
    throwAsError();
}

// The refusal does not depend on this second read.
void readClaims(const std::filesystem::path& file, const Authorities& authorities, Inspection& result) try {
    const PackageFile opened(file);
    const auto& header = opened.reader();
    Inspection::Claims claims{.identity = identityOf(header),
                              .architecture = header.getStringTag(RPMTAG_ARCH),
                              .signatures = {},
                              .reason = {}};
    if (const auto signedFile = PackageSignatures::FileWithCmses::fromPath(opened.openFile())) {
        claims.signatures = signedFile->cmses();
        if (PackageSignatures::verificationProblem != nullptr) {
            claims.reason = PackageSignatures::verificationProblem(*signedFile, authorities.certificates);
        }
    }
    result.claims = std::move(claims);
} catch (const std::exception& error) {
    Common::logWarning() << "couldn't read the refused package again: " << error.what();
}

} // namespace

Inspection inspect(const std::filesystem::path& file, const InspectedSystem& system,
                   const ExtractionWatch& watch) {
    Inspection result;
    try {
        inspect(file, system, watch, result);
    } catch (const Error& refusal) {
        result.refusal = refusal;
        if (refusal.code() == ErrorCode::BadPackageSignature) {
            readClaims(file, system.authorities, result);
        }
    }
    return result;
}

} // namespace Core::ZUL
