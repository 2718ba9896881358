#include "core/zul/DatabaseView.h"

#include "common/Error.h"
#include "common/Files.h"
#include "common/Names.h"
#include "common/PackageId.h"
#include "core/zul/Record.h"
#include "core/zul/mapping/MappingPlan.h"

#include <algorithm>
#include <fcntl.h>

namespace Core::ZUL {

namespace fs = std::filesystem;
using Common::Error;
using Common::ErrorCode;

namespace {

/// A path that ends with a slash has an empty last part.
fs::path withoutSlash(const fs::path& path) { return path.has_filename() ? path : path.parent_path(); }

} // namespace

DatabaseView::DatabaseView(const InspectedDatabase& database)
    : directory_(withoutSlash(database.directory.lexically_normal()))
    , tree_(database.root)
    , system_(database.systemRoot)
    , status_(tree_.status(directory_))
    , places_(database.systemRoot, SystemTree::Use::Look) {}

fs::path DatabaseView::belowDirectory(const fs::path& path) const {
    const auto normal = withoutSlash(path.lexically_normal());
    if (!normal.is_absolute()) {
        return {};
    }
    if (auto below = normal.lexically_relative(directory_); below != "." && *below.begin() != "..") {
        return below;
    }
    for (auto above = normal.parent_path(); status_ && above.has_relative_path();
         above = above.parent_path()) {
        if (const auto found = tree_.status(above); found && Common::isSameFile(*found, *status_)) {
            return normal.lexically_relative(above);
        }
    }
    return {};
}

std::string DatabaseView::packageOf(const fs::path& path) const {
    const auto below = belowDirectory(path);
    return below.empty() ? std::string() : below.begin()->native();
}

std::vector<std::string> DatabaseView::packages() const {
    auto names = tree_.namesIn(directory_);
    std::erase_if(names, [this](const auto& name) {
        const auto status = tree_.status(directory_ / name);
        return !status || !S_ISDIR(status->st_mode) || !Common::isPackageId(name);
    });
    return names;
}

InstalledPackage::InstalledPackage(const DatabaseView& view, const std::string& packageId)
    : view_(view)
    , id_(directoryName(packageId))
    , path_(view.directory() / id_) {}

void InstalledPackage::requireExists() const {
    if (!exists()) {
        throw Error(ErrorCode::PackageNotExist, "the package is not installed: " + id_);
    }
}

std::string InstalledPackage::versionOf(const std::string& link) const {
    const auto target = view_.tree().linkTarget(path_ / link);
    const auto name = target ? withoutSlash(*target).filename().native() : std::string();
    if (!Common::isOrdinaryName(name) || name == "current" || name == "next") {
        return {};
    }
    const auto version = view_.tree().status(path_ / name, O_NOFOLLOW);
    const bool isThere =
        version && S_ISDIR(version->st_mode) && view_.tree().isSameFile(path_ / link, path_ / name);
    return isThere ? name : std::string();
}

std::vector<std::string> InstalledPackage::versions() const {
    auto names = view_.tree().namesIn(path_);
    std::erase_if(names, [this](const auto& name) {
        const auto status = view_.tree().status(path_ / name, O_NOFOLLOW);
        return !status || !S_ISDIR(status->st_mode);
    });
    return names;
}

PackageData InstalledPackage::record(const std::string& version) const {
    return readRecord(path_ / version / recordName, [this](const auto& file, std::size_t limit) {
        return view_.tree().readFile(file, limit);
    });
}

PackageIdentity InstalledPackage::identity(const std::string& version) const {
    namespace Keys = Common::Names::PackageKeys;
    const auto data = record(version);
    const auto valueOf = [&](const std::string& key) {
        const auto found = data.find(key);
        return found == data.end() ? std::nullopt : std::optional(found->second);
    };
    return {id_, version, valueOf(Keys::orgName), valueOf(Keys::appName)};
}

std::optional<MappingList> InstalledPackage::mappingList(const std::string& version) const {
    return readMappingList(path_ / version, [this](const auto& file, std::size_t limit) {
        return view_.tree().readFile(file, limit);
    });
}

std::vector<InstalledPackage::File> InstalledPackage::files(const std::string& version) const {
    std::vector<File> found;
    const auto directory = path_ / version;
    view_.tree().walk(directory, [&](const fs::path& path, const struct stat& status) {
        auto relative = path.lexically_relative(directory);
        if (relative != recordName && relative != mappingListName) {
            found.push_back({std::move(relative), status});
        }
    });
    return found;
}

std::map<std::string, std::string> InstalledPackage::plan(const PackageIdentity& identity,
                                                          const std::vector<File>& files) const {
    std::map<std::string, std::string> places;
    const auto rules = mappingRules(identity);
    for (const auto& file : files) {
        const auto place =
            canBeMapped(file.relative) ? placeOf(file.relative.native(), rules) : std::string();
        const auto target = !place.empty() && S_ISLNK(file.status.st_mode)
                                ? view_.tree().status(path_ / identity.version() / file.relative)
                                : std::nullopt;
        if (!place.empty() && (!target || !S_ISDIR(target->st_mode))) {
            places.emplace(place, file.relative.native());
        }
    }
    return places;
}

MappingKind InstalledPackage::kindOf(const PackageIdentity& identity) const {
    const auto rules = mappingRules(identity);
    const bool isCopied = std::any_of(rules.begin(), rules.end(), [&](const MappingRule& rule) {
        const auto source = rule.kind == MappingKind::Copy
                                ? view_.tree().status(path_ / identity.version() / rule.source)
                                : std::nullopt;
        return source && S_ISDIR(source->st_mode);
    });
    return isCopied ? MappingKind::Copy : MappingKind::Link;
}

} // namespace Core::ZUL
