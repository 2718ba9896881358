#include "core/zul/PackageDirectory.h"

#include "common/Files.h"
#include "common/LogLine.h"
#include "core/zul/mapping/MappingList.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace Core::ZUL {

namespace {

namespace fs = std::filesystem;

/// Calls the action; a failure is a warning.
template<typename Action>
void tryTo(const std::string& message, Action action) {
    try {
        action();
    } catch (const std::exception& error) {
        Common::logWarning() << message << error;
    }
}

/// A path that ends with a slash has an empty last part.
fs::path withoutSlash(const fs::path& path) { return path.has_filename() ? path : path.parent_path(); }

bool isRealDirectory(const fs::path& path) {
    const auto status = Common::statusOf(path, AT_SYMLINK_NOFOLLOW);
    return status && S_ISDIR(status->st_mode);
}

} // namespace

bool PackageDirectory::isReal() const { return isRealDirectory(path_); }

void PackageDirectory::requireNotSymlink() const {
    if (Common::linkTarget(path_)) {
        throw Common::Error(Common::ErrorCode::Filesystem, "package directory is a link: " + path_.native());
    }
}

bool PackageDirectory::hasNextLink() const { return Common::linkTarget(next()).has_value(); }

std::string PackageDirectory::versionNameOf(const fs::path& link) {
    return withoutSlash(Common::linkTarget(link).value_or(fs::path())).filename();
}

fs::path PackageDirectory::versionOf(const fs::path& link) const {
    const auto target = Common::linkTarget(link);
    if (!target) {
        return {};
    }
    const auto version = withoutSlash((path_ / *target).lexically_normal());
    const auto name = version.filename();
    if (!Common::isOrdinaryName(name.native()) || name == "current" || name == "next") {
        return {};
    }
    // The link may have been created when the root had another path.
    const bool isChild = version.parent_path() == path_.lexically_normal() ||
                         (isRealDirectory(path_ / name) && Common::isSameFile(path_ / name, version));
    return isChild ? path_ / name : fs::path();
}

bool PackageDirectory::pointsToExistingVersion(const fs::path& link) const {
    const auto version = versionOf(link);
    return !version.empty() && isRealDirectory(version);
}

bool PackageDirectory::isAbandoned(const fs::path& version) const {
    return isRealDirectory(version) && version != versionOf(current()) && version != versionOf(next());
}

std::vector<fs::path> PackageDirectory::listHolders() const {
    std::vector<fs::path> holders;
    if (Common::exists(current())) {
        holders.push_back(current());
    }
    // The list of a formerly installed version may name mappings that could not be removed.
    const auto installed = versionOf(current());
    for (const auto& entry : isReal() ? Common::entriesOf(path_) : std::vector<fs::path>()) {
        if (entry != installed && isRealDirectory(entry) && Common::exists(entry / mappingListName)) {
            holders.push_back(entry);
        }
    }
    return holders;
}

void PackageDirectory::discardPreparedUpgrade(const std::string& versionWords,
                                              const std::string& linkWords) const {
    if (!isReal()) {
        return;
    }
    const auto version = versionOf(next());
    const bool isOurs = !version.empty() && version != versionOf(current());
    // The link first: were it to outlive its version, recovery would put nothing into service.
    tryTo(linkWords, [this] { Common::removeTree(next()); });
    if (!isOurs) {
        return;
    }
    tryTo(versionWords, [this, &version] {
        // Its list may name mappings that could not be removed when its completion failed.
        if (pointsToExistingVersion(current())) {
            keepMappingListOf(version, current());
        } else if (Common::exists(version / mappingListName)) {
            return;
        }
        Common::removeTree(version);
    });
}

void PackageDirectory::sweep(const std::string& message,
                             const std::function<void(const fs::path&)>& beforeRemoval) const {
    const auto kept = versionOf(current());
    if (!isReal() || kept.empty()) {
        return;
    }
    for (const auto& entry : Common::entriesOf(path_)) {
        if (entry == current() || entry == kept) {
            continue;
        }
        tryTo(message + Common::quoted(entry), [&] {
            if (beforeRemoval) {
                beforeRemoval(entry);
            }
            Common::removeTree(entry);
        });
    }
}

void PackageDirectory::removeLinks() const {
    if (!isReal()) {
        return;
    }
    for (const auto& link : {next(), current()}) {
        if (unlink(link.c_str()) != 0 && errno != ENOENT && errno != EISDIR) {
            throw Common::filesystemError("couldn't remove " + link.native());
        }
    }
    Common::flushDirectory(path_);
}

void PackageDirectory::remove() const {
    removeLinks();
    Common::removeTree(path_);
}

} // namespace Core::ZUL
