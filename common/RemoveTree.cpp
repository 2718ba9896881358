#include "common/Files.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/stat.h>

namespace Common {

namespace {

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

/// After a failure: whether it makes sense to try again, since the directory denied its own owner something
/// and does so no longer. Leaves errno as it was.
/// @param directory  may be open with O_PATH, which fchmod(2) does not take
bool unlocked(int directory) {
    const int error = errno;
    struct stat status {};
    const auto place = "/proc/self/fd/" + std::to_string(directory);
    const bool isUnlocked = error == EACCES && fstat(directory, &status) == 0 &&
                            (status.st_mode & S_IRWXU) != S_IRWXU &&
                            chmod(place.c_str(), (status.st_mode & 07777U) | S_IRWXU) == 0;
    errno = error;
    return isUnlocked;
}

bool removeName(int directory, const std::string& name, int flags) {
    return unlinkat(directory, name.c_str(), flags) == 0 ||
           (unlocked(directory) && unlinkat(directory, name.c_str(), flags) == 0);
}

/// A descriptor of a directory itself, not of what a link leads to.
UniqueFd openItself(int parent, const char* name, int flags) {
    return UniqueFd(openat(parent, name, flags | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool unlocked(int parent, const char* name) { return unlocked(openItself(parent, name, O_PATH).get()); }

/// Deletes what a directory holds. Each level takes a descriptor; what lies deeper than the limit is moved up
/// to the top and deleted from there, so that no depth of tree exhausts them.
class Emptier {
public:
    explicit Emptier(const std::filesystem::path& top)
        : path_(top)
        , top_(openDirectory(AT_FDCWD, top.c_str())) {}

    void run() {
        do {
            hoistedAny_ = false;
            rewinddir(top_.get());
            empty(top_.get(), 0);
        } while (hoistedAny_);
    }

private:
    static constexpr int depthLimit = 64;

    [[noreturn]] void fail() const { throw filesystemError("couldn't remove " + path_.native()); }

    Directory openDirectory(int parent, const char* name) const {
        auto fd = openItself(parent, name, O_RDONLY);
        if (!fd && unlocked(parent, name)) {
            fd = openItself(parent, name, O_RDONLY);
        }
        Directory directory(fd ? fdopendir(fd.get()) : nullptr);
        if (!directory) {
            fail();
        }
        static_cast<void>(fd.release());
        return directory;
    }

    void empty(DIR* directory, int depth) {
        for (errno = 0; const auto* entry = readdir(directory); errno = 0) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                removeEntry(dirfd(directory), name, entry->d_type == DT_DIR, depth);
            }
        }
        if (errno != 0) {
            fail();
        }
    }

    void removeEntry(int directory, const std::string& name, bool isDirectory, int depth) {
        if (!isDirectory) {
            if (removeName(directory, name, 0) || errno == ENOENT) {
                return;
            }
            if (errno != EISDIR) {
                fail();
            }
        }
        if (removeName(directory, name, AT_REMOVEDIR)) {
            return;
        }
        if (errno != ENOTEMPTY && errno != EEXIST) {
            fail();
        }
        if (depth == depthLimit) {
            hoist(directory, name);
            return;
        }
        empty(openDirectory(directory, name.c_str()).get(), depth + 1);
        if (!removeName(directory, name, AT_REMOVEDIR)) {
            fail();
        }
    }

    void hoist(int directory, const std::string& name) {
        do {
            const auto place = ".deep-" + std::to_string(hoisted_++);
            if (renameat(directory, name.c_str(), dirfd(top_.get()), place.c_str()) == 0) {
                hoistedAny_ = true;
                return;
            }
            // To move a directory is to write its "..".
        } while (errno == ENOTEMPTY || errno == EEXIST || errno == ENOTDIR ||
                 unlocked(directory, name.c_str()));
        fail();
    }

    std::filesystem::path path_;
    Directory top_;
    bool hoistedAny_ = false;
    unsigned hoisted_ = 0;
};

} // namespace

void removeTree(const std::filesystem::path& path) {
    // A trailing slash would follow a link.
    const auto plain = path.has_filename() ? path : path.parent_path();
    if (unlink(plain.c_str()) == 0 || errno == ENOENT || errno == ENOTDIR) {
        return;
    }
    if (errno != EISDIR) {
        throw filesystemError("couldn't remove " + plain.native());
    }
    if (rmdir(plain.c_str()) == 0) {
        return;
    }
    Emptier(plain).run();
    if (rmdir(plain.c_str()) != 0) {
        throw filesystemError("couldn't remove " + plain.native());
    }
}

} // namespace Common
