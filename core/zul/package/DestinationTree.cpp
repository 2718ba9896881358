#include "core/zul/package/DestinationTree.h"

#include "common/Error.h"
#include "common/Files.h"
#include "common/LogLine.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace Core::ZUL {

namespace fs = std::filesystem;

namespace {

// Each open level needs a descriptor, also during mapping and removal. Packages have far fewer levels.
constexpr std::size_t deepest = 256;

constexpr mode_t ownersAll = 0700;

} // namespace

DestinationTree::DestinationTree(fs::path root)
    : root_(std::move(root)) {
    fs::create_directories(root_);
    rootDescriptor_ = Common::UniqueFd(open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!rootDescriptor_) {
        fail("cannot open directory", {});
    }
}

DestinationTree::Place DestinationTree::placeOf(const fs::path& path) {
    Place place;
    for (const auto& component : path) {
        const auto& name = component.native();
        if (name == ".." || name.find('/') != std::string::npos) {
            refuse("the rpm package has an entry outside its own directory: ", path.native());
        }
        if (!name.empty() && name != ".") {
            place.key += "/" + name;
            place.parents.push_back(name);
        }
    }
    if (place.parents.size() > deepest) {
        refuse("the rpm package has an entry in too many directories: ", path.native());
    }
    if (!place.parents.empty()) {
        place.name = std::move(place.parents.back());
        place.parents.pop_back();
    }
    return place;
}

int DestinationTree::current() const {
    return open_.empty() ? rootDescriptor_.get() : open_.back().descriptor.get();
}

/// Consecutive entries are mostly in one directory, so directories that are still needed stay open.
int DestinationTree::enter(const std::vector<std::string>& directories) {
    std::size_t common = 0;
    while (common < std::min(open_.size(), directories.size()) && open_[common].name == directories[common]) {
        ++common;
    }
    open_.resize(common);
    while (open_.size() < directories.size()) {
        descend(directories[open_.size()]);
    }
    return current();
}

int DestinationTree::enterItself(const Place& place) {
    const int parent = enter(place.parents);
    if (place.name.empty()) {
        return parent;
    }
    descend(place.name);
    return current();
}

void DestinationTree::descend(const std::string& name) {
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const auto path = openPath() + "/" + name;
    Common::UniqueFd next(openat(current(), name.c_str(), flags));
    if (!next && errno == ENOENT) {
        if (!Common::makePublicDirectory(current(), name)) {
            fail("cannot create directory", path);
        }
        made_.emplace(path, Made::Directory);
        next = Common::UniqueFd(openat(current(), name.c_str(), flags));
    }
    if (!next) {
        const int error = errno;
        struct stat status {};
        if (fstatat(current(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode)) {
            refuse("the rpm package has an entry below a symbolic link: ", path);
        }
        const auto made = made_.find(path);
        if (made != made_.end() && made->second != Made::Directory) {
            refuse("the rpm package has an entry below a file: ", path);
        }
        errno = error;
        fail("cannot open directory", path);
    }
    open_.push_back({name, std::move(next)});
}

void DestinationTree::makeDirectory(const fs::path& path, mode_t permissions) {
    const auto place = placeOf(path);
    if (fchmod(enterItself(place), permissions | ownersAll) != 0) {
        fail("cannot set permissions", place.key);
    }
    if ((permissions & ownersAll) != ownersAll) {
        waiting_[place.key] = permissions;
    } else {
        waiting_.erase(place.key);
    }
}

Common::UniqueFd DestinationTree::makeFile(const fs::path& path) {
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const auto place = placeOf(path);
    const int directory = enter(place.parents);
    requireNew(place);
    // An existing file is not written to: it may have further hard links.
    Common::UniqueFd file(openat(directory, place.name.c_str(), flags, 0600));
    if (!file && errno == EEXIST && unlinkat(directory, place.name.c_str(), 0) == 0) {
        file = Common::UniqueFd(openat(directory, place.name.c_str(), flags, 0600));
    }
    if (!file) {
        const std::error_code reason(errno, std::generic_category());
        Common::logError() << reason.message();
        throw Common::Error(Common::ErrorCode::Filesystem,
                            "couldn't open file for writing rpm content: " + nameOf(path).native());
    }
    made_.emplace(place.key, Made::File);
    return file;
}

void DestinationTree::makeSymbolicLink(const fs::path& path, const fs::path& target) {
    const auto place = placeOf(path);
    requireInside(place, target);
    const int directory = enter(place.parents);
    requireNew(place);
    if (symlinkat(target.c_str(), directory, place.name.c_str()) != 0) {
        fail("cannot create symbolic link", place.key);
    }
    made_.emplace(place.key, Made::Link);
}

void DestinationTree::makeHardLink(const fs::path& path, const fs::path& existing) {
    const auto from = placeOf(existing);
    const auto place = placeOf(path);
    const auto original = made_.find(from.key);
    if (original == made_.end() || original->second != Made::File) {
        refuse("the rpm package has a hard link to what is not in its set: ", place.key);
    }
    const Common::UniqueFd source(fcntl(enter(from.parents), F_DUPFD_CLOEXEC, 0));
    const int directory = enter(place.parents);
    requireNew(place);
    if (!source || linkat(source.get(), from.name.c_str(), directory, place.name.c_str(), 0) != 0) {
        fail("cannot create hard link", place.key);
    }
    made_.emplace(place.key, Made::File);
}

void DestinationTree::finish() {
    // Inner directories first: an outer one without access would block them.
    while (!waiting_.empty()) {
        const auto [key, permissions] = *waiting_.rbegin();
        if (fchmod(enterItself(placeOf(fs::path(key).relative_path())), permissions) != 0) {
            fail("cannot set permissions", key);
        }
        waiting_.erase(key);
    }
}

void DestinationTree::requireNew(const Place& place) const {
    if (place.name.empty() || made_.contains(place.key)) {
        refuse("the rpm package has two entries for one place: ", place.key);
    }
}

void DestinationTree::requireInside(const Place& link, const fs::path& target) {
    std::size_t climbed = 0;
    bool climbs = true;
    for (const auto& component : target) {
        const bool isParent = component == "..";
        climbed += isParent ? 1 : 0;
        if (target.is_absolute() || climbed > link.parents.size() || (isParent && !climbs)) {
            refuse("the rpm package has a link that leads out of it: ", link.key);
        }
        climbs = isParent;
    }
}

std::string DestinationTree::openPath() const {
    std::string path;
    for (const auto& directory : open_) {
        path += "/" + directory.name;
    }
    return path;
}

void DestinationTree::fail(const char* message, const std::string& path) const {
    const std::error_code reason(errno, std::generic_category());
    throw fs::filesystem_error(message, fs::path(root_).concat(path), reason);
}

void DestinationTree::refuse(const char* message, const std::string& path) {
    throw Common::Error(Common::ErrorCode::BadPackage, message + path);
}

} // namespace Core::ZUL
