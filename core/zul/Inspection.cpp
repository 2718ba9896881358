#include "core/zul/Inspection.h"

#include "common/Files.h"
#include "common/rpm/FileList.h"
#include "common/rpm/Version.h"
#include "core/zul/Edge.h"
#include "core/zul/PackageDirectory.h"
#include "core/zul/mapping/Mapping.h"
#include "core/zul/mapping/MappingRules.h"
#include "core/zul/package/PackageFile.h"
#include "core/zul/package/PackagePath.h"

#include <cstdlib>
#include <memory>
#include <sys/stat.h>

namespace Core::ZUL {

namespace {

using Common::Error;
using Common::ErrorCode;

/// Whether something is at the place that a mapping never replaces.
bool isTaken(SystemTree& tree, const std::string& place, const std::filesystem::path& packageDirectory) {
    const Mapping mapping(tree, place);
    return mapping.exists() && !mapping.belongsTo(packageDirectory) &&
           !mapping.isReplaceable(packageDirectory.parent_path());
}

void listFiles(const InspectedSystem& system, Inspection& result) {
    const auto& package = *result.package;
    const Common::Rpm::FileList list(package.file().reader().header());
    const PackagePath paths(package);
    const auto rules = mappingRules(package);
    SystemTree tree(system.root, SystemTree::Use::Look);
    for (int index = 0; index < list.size(); ++index) {
        const auto mode = rpmfilesFMode(list.get(), index);
        const bool isGhost = (rpmfilesFFlags(list.get(), index) & RPMFILE_GHOST) != 0;
        if (isGhost || (!S_ISREG(mode) && !S_ISLNK(mode))) {
            continue;
        }
        const std::unique_ptr<char, decltype(&std::free)> name(rpmfilesFN(list.get(), index), std::free);
        Inspection::File found{name.get(), placeOf(paths.toPackagePath(name.get()).native(), rules)};
        found.isPlaceTaken = !found.place.empty() &&
                             isTaken(tree, found.place, system.database.rootDirectory() / package.id());
        result.files.push_back(std::move(found));
        if (S_ISREG(mode) && list.firstLink(index) == index) {
            result.size += rpmfilesFSize(list.get(), index);
        }
    }
}

void compareVersions(const InspectedSystem& system, Inspection& result) {
    const PackageDirectory directory(system.database.rootDirectory() / result.package->id());
    const bool isPrepared = directory.hasNextLink();
    const auto link = isPrepared ? directory.next() : directory.current();
    if (directory.pointsToExistingVersion(link)) {
        result.existingVersion = directory.versionNameOf(link);
        if (const auto existing = Common::Rpm::Version::parse(result.existingVersion)) {
            requireHigher(*result.package, *existing, isPrepared);
        }
    }
}

void requireSpace(const InspectedSystem& system, Inspection& result) {
    // The temporary directory is on the same file system, and is made when it is needed.
    auto place = system.database.rootDirectory();
    while (!Common::exists(place)) {
        place = place.parent_path();
    }
    std::error_code unknown;
    const auto space = std::filesystem::space(place, unknown);
    if (unknown) {
        return;
    }
    result.available = space.available;
    if (result.size > space.available) {
        throw Error(ErrorCode::Filesystem, "the files have " + std::to_string(result.size) + " bytes and " +
                                               std::to_string(space.available) + " are free");
    }
}

void inspect(const std::filesystem::path& file, const InspectedSystem& system, const ExtractionWatch& watch,
             Inspection& result) try {
    result.package = Package::fromFile(file, system.authorities, watch);
    listFiles(system, result);
    result.package->requireArchitecture(system.architecture);
    compareVersions(system, result);
    for (const auto& each : result.files) {
        if (each.isPlaceTaken) {
            throw Error(ErrorCode::Filesystem,
                        "attempt to override system file with package mapping: " + each.place);
        }
    }
    requireSpace(system, result);
} catch (...) {
    throwAsError();
}

} // namespace

Inspection inspect(const std::filesystem::path& file, const InspectedSystem& system,
                   const ExtractionWatch& watch) {
    Inspection result;
    try {
        inspect(file, system, watch, result);
    } catch (const Error& refusal) {
        result.refusal = refusal;
    }
    return result;
}

} // namespace Core::ZUL
