#include "core/zul/PackageDirectory.h"

#include "common/Files.h"
#include "common/LogLine.h"
#include "core/zul/MappingList.h"

#include <unistd.h>

namespace Core::ZUL {

namespace {

namespace fs = std::filesystem;

/// Calls the action; a failure is a warning.
template<typename Action>
void tryTo(const std::string& words, Action action) {
    try {
        action();
    } catch (const std::exception& error) {
        Common::logWarning() << words << error;
    }
}

bool isRealDirectory(const fs::path& path) {
    std::error_code error;
    return fs::is_directory(fs::symlink_status(path, error));
}

} // namespace

bool PackageDirectory::isReal() const { return isRealDirectory(path_); }

void PackageDirectory::requireReal() const {
    if (Common::linkTarget(path_)) {
        throw Common::Error(Common::ErrorCode::Filesystem, "package directory is a link: " + path_.native());
    }
}

bool PackageDirectory::hasNextLink() const { return Common::linkTarget(next()).has_value(); }

std::string PackageDirectory::versionNameBehind(const fs::path& link) const {
    return Common::linkTarget(link).value_or(fs::path()).filename();
}

fs::path PackageDirectory::versionBehind(const fs::path& link) const {
    const auto target = Common::linkTarget(link);
    if (!target) {
        return {};
    }
    auto version = (path_ / *target).lexically_normal();
    if (!version.has_filename()) {
        version = version.parent_path();
    }
    const auto name = version.filename();
    if (!Common::isOrdinaryName(name.native()) || name == "current" || name == "next") {
        return {};
    }
    // The link may have been made when the root went by another name.
    std::error_code error;
    const bool isChild = version.parent_path() == path_.lexically_normal() ||
                         (isRealDirectory(path_ / name) && fs::equivalent(path_ / name, version, error));
    return isChild ? path_ / name : fs::path();
}

bool PackageDirectory::isSound(const fs::path& link) const {
    const auto version = versionBehind(link);
    return !version.empty() && isRealDirectory(version);
}

std::vector<fs::path> PackageDirectory::versions() const {
    std::vector<fs::path> versions;
    if (isReal()) {
        for (const auto& entry : fs::directory_iterator(path_)) {
            if (isRealDirectory(entry) && Common::leadsSomewhere(entry.path() / mappingListName)) {
                versions.push_back(entry.path());
            }
        }
    }
    return versions;
}

void PackageDirectory::giveUpNext(const std::string& versionWords, const std::string& linkWords) const {
    if (!isReal()) {
        return;
    }
    const auto version = versionBehind(next());
    // The link first: were it to outlive its version, recovery would put nothing into service.
    tryTo(linkWords, [this] { Common::removeTree(next()); });
    if (!version.empty() && version != versionBehind(current())) {
        tryTo(versionWords, [&version] { Common::removeTree(version); });
    }
}

void PackageDirectory::sweep(const std::string& words,
                             const std::function<void(const fs::path&)>& beforeRemoval) const {
    if (!isReal()) {
        return;
    }
    const auto kept = versionBehind(current());
    std::vector<fs::path> entries;
    for (const auto& entry : fs::directory_iterator(path_)) {
        if (entry.path() != current() && entry.path() != kept) {
            entries.push_back(entry.path());
        }
    }
    for (const auto& entry : entries) {
        if (beforeRemoval) {
            beforeRemoval(entry);
        }
        tryTo(words + Common::quoted(entry), [&entry] { Common::removeTree(entry); });
    }
}

void PackageDirectory::remove() const {
    if (isReal()) {
        unlink(next().c_str());
        unlink(current().c_str());
        Common::flushDirectory(path_);
    }
    Common::removeTree(path_);
}

} // namespace Core::ZUL
