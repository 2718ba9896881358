#include "core/zul/DatabaseInspection.h"

#include "common/Error.h"
#include "core/zul/DatabaseLocation.h"
#include "core/zul/DatabaseView.h"
#include "core/zul/Edge.h"

#include <algorithm>
#include <fcntl.h>
#include <set>

namespace Core::ZUL {

namespace fs = std::filesystem;
using Common::Error;
using Common::ErrorCode;

namespace {

std::uint64_t sizeOf(const std::vector<InstalledPackage::File>& files) {
    std::uint64_t size = 0;
    std::set<ino_t> counted;
    for (const auto& [relative, status] : files) {
        if (S_ISREG(status.st_mode) && counted.insert(status.st_ino).second) {
            size += static_cast<std::uint64_t>(status.st_size);
        }
    }
    return size;
}

std::uint64_t sizeOfCopies(DatabaseView& view, const InstalledPackage& package, const std::string& version) {
    std::uint64_t size = 0;
    std::set<std::pair<dev_t, ino_t>> counted; // a list may spell a place in several ways
    const auto list = package.mappingList(version).value_or(MappingList());
    for (const auto& place : std::set<std::string>(list.begin(), list.end())) {
        if (!Mapping::isPlace(place)) {
            continue;
        }
        const auto status = view.system().status(place, O_NOFOLLOW);
        const auto mapping = view.mappingAt(place);
        if (status && S_ISREG(status->st_mode) && mapping.isMapping() &&
            view.packageOf(mapping.mappingTarget()) == package.id() &&
            counted.emplace(status->st_dev, status->st_ino).second) {
            size += static_cast<std::uint64_t>(status->st_size);
        }
    }
    return size;
}

InstalledSize sizeOf(DatabaseView& view, const InstalledPackage& package) {
    InstalledSize size{package.id(), package.versionOf("current")};
    for (const auto& version : package.versions()) {
        (version == size.version ? size.installed : size.others) += sizeOf(package.files(version));
    }
    if (!size.version.empty()) {
        size.copies = sizeOfCopies(view, package, size.version);
    }
    return size;
}

} // namespace

InspectedDatabase InspectedDatabase::ofImage(const fs::path& image) try {
    constexpr std::size_t sizeLimit = 1024UL * 1024UL;
    const auto text = ReadTree(image).readFile(DatabaseLocation::configurationFile, sizeLimit);
    const auto directory = DatabaseLocation::rootDirectoryIn(text.value_or(""));
    if (!directory || !directory->is_absolute() || !directory->has_relative_path()) {
        throw Error(ErrorCode::Filesystem, std::string("the image's ") + DatabaseLocation::configurationFile +
                                               " is damaged or names no directory of its own");
    }
    return {*directory, image, image};
} catch (...) {
    throwAsError();
}

std::vector<InstalledFile> filesOf(const std::string& packageId, const InspectedDatabase& database) try {
    const DatabaseView view(database);
    const InstalledPackage package(view, packageId);
    package.requireExists();
    const auto version = package.versionOf("current");
    if (version.empty()) {
        throw Error(ErrorCode::CorruptedInstalledPackage,
                    "no version of the package is installed: " + package.id());
    }
    const auto files = package.files(version);
    std::map<std::string, std::string> places;
    for (const auto& [place, file] : package.plan(package.identity(version), files)) {
        places.emplace(file, place);
    }
    std::vector<InstalledFile> result;
    result.reserve(files.size());
    for (const auto& file : files) {
        result.push_back({package.path() / version / file.relative, places[file.relative.native()]});
    }
    return result;
} catch (...) {
    throwAsError();
}

std::optional<Owner> ownerOf(const fs::path& path, const InspectedDatabase& database) try {
    DatabaseView view(database);
    auto file = path;
    if (Mapping::isPlace(path) && view.mappingAt(path).exists()) {
        const auto mapping = view.mappingAt(path);
        if (view.packageOf(path).empty() &&
            mapping.isMapping()) { // a link in the database is a package's file
            file = mapping.mappingTarget();
        }
    } else if (!view.tree().status(path, O_NOFOLLOW)) {
        throw Error(ErrorCode::FileNotFound, "there is nothing at " + path.native());
    }
    const auto id = view.packageOf(file);
    if (id.empty() || !InstalledPackage(view, id).exists()) {
        return std::nullopt;
    }
    const InstalledPackage package(view, id);
    const auto inPackage = view.belowDirectory(file).lexically_relative(id);
    const auto first = inPackage.begin()->native();
    const bool isLink = first == "current" || first == "next";
    const auto versions = package.versions();
    const bool isVersion = !isLink && std::find(versions.begin(), versions.end(), first) != versions.end();
    return Owner{id, isVersion ? first : package.versionOf(first), file};
} catch (...) {
    throwAsError();
}

InstalledSize sizeOf(const std::string& packageId, const InspectedDatabase& database) try {
    DatabaseView view(database);
    const InstalledPackage package(view, packageId);
    package.requireExists();
    return sizeOf(view, package);
} catch (...) {
    throwAsError();
}

InstalledSizes sizesOf(const InspectedDatabase& database) try {
    DatabaseView view(database);
    InstalledSizes result;
    for (const auto& name : view.packages()) {
        try {
            result.sizes.push_back(sizeOf(view, InstalledPackage(view, name)));
        } catch (const Error& error) {
            result.unread.push_back({name, error.what()});
        }
    }
    return result;
} catch (...) {
    throwAsError();
}

} // namespace Core::ZUL
