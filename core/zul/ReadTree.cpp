#include "core/zul/ReadTree.h"

#include "common/Files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <linux/limits.h>
#include <span>
#include <sys/xattr.h>

namespace Core::ZUL {

namespace fs = std::filesystem;
using Common::Error;
using Common::UniqueFd;

namespace {

// For calls that take no O_PATH descriptor.
std::string pathOf(const UniqueFd& fd) { return "/proc/self/fd/" + std::to_string(fd.get()); }

} // namespace

ReadTree::ReadTree(const fs::path& root)
    : root_(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    if (!root_) {
        throw Common::filesystemError("couldn't open directory " + root.native());
    }
}

/// @return nothing if the file is absent
UniqueFd ReadTree::open(const fs::path& path, int flags) const {
    const auto below = path.relative_path();
    auto fd = Common::openWithin(root_.get(), below.empty() ? "." : below, flags, Common::Resolve::InRoot);
    if (!fd && (!Common::meansAbsence(errno) || errno == ENAMETOOLONG)) {
        throw Common::filesystemError("couldn't look at " + path.native());
    }
    return fd;
}

std::optional<struct stat> ReadTree::status(const fs::path& path, int flags) const {
    const auto fd = open(path, O_PATH | flags);
    return fd ? std::optional(Common::statusOf(fd.get())) : std::nullopt;
}

bool ReadTree::isSameFile(const fs::path& first, const fs::path& second) const {
    const auto one = status(first);
    const auto other = status(second);
    return one && other && Common::isSameFile(*one, *other);
}

std::optional<fs::path> ReadTree::linkTarget(const fs::path& path) const {
    const auto fd = open(path, O_PATH | O_NOFOLLOW);
    if (!fd || !S_ISLNK(Common::statusOf(fd.get()).st_mode)) {
        return std::nullopt;
    }
    std::string target(PATH_MAX, '\0');
    const auto size = readlinkat(fd.get(), "", target.data(), target.size());
    if (size < 0) {
        throw Common::filesystemError("couldn't read link " + path.native());
    }
    target.resize(static_cast<std::size_t>(size));
    return target;
}

std::vector<std::string> ReadTree::namesIn(const fs::path& directory) const {
    const auto fd = open(directory, O_RDONLY | O_DIRECTORY);
    std::vector<std::string> names;
    for (const auto& entry : fd ? Common::entriesOf(pathOf(fd)) : std::vector<fs::path>()) {
        names.push_back(entry.filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<std::string> ReadTree::readFile(const fs::path& file, std::size_t limit) const {
    const auto fd = open(file, O_PATH);
    if (!fd) {
        return std::nullopt;
    }
    // A device must not be opened, not even to read its type.
    const auto status = Common::statusOf(fd.get());
    if (!S_ISREG(status.st_mode) || static_cast<std::size_t>(status.st_size) > limit) {
        throw Error(Common::ErrorCode::FileNotFound,
                    "not a regular file of at most " + std::to_string(limit) + " bytes: " + file.native());
    }
    const auto opened = Common::openRegularFile(pathOf(fd));
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    const auto filled = opened ? Common::readAll(opened.get(), std::as_writable_bytes(std::span(text)))
                               : std::optional<std::size_t>();
    if (!filled) {
        throw Common::filesystemError("couldn't read " + file.native());
    }
    text.resize(*filled);
    return text;
}

std::map<std::string, std::string> ReadTree::securityAttributes(const fs::path& path, int flags) const {
    std::map<std::string, std::string> attributes;
    const auto fd = open(path, O_PATH | flags);
    std::array<char, XATTR_LIST_MAX> names; // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    auto size = fd ? listxattr(pathOf(fd).c_str(), names.data(), names.size()) : 0;
    std::string value(XATTR_SIZE_MAX, '\0');
    for (const char* name = names.data(); size > 0 && name < names.data() + size;) {
        const std::string_view text(name);
        if (text.starts_with("security.")) {
            const auto length = getxattr(pathOf(fd).c_str(), name, value.data(), value.size());
            if (length < 0) {
                size = length;
                break;
            }
            attributes.emplace(text, value.substr(0, static_cast<std::size_t>(length)));
        }
        name += text.size() + 1;
    }
    if (size < 0 && errno != ENOTSUP) {
        throw Common::filesystemError("couldn't read the extended attributes of " + path.native());
    }
    return attributes;
}

void ReadTree::walk(const fs::path& directory, const Visitor& visit, const FailureHandler& failed) const {
    const auto tryTo = [&](const auto& action) {
        try {
            action();
        } catch (const Error& error) {
            if (!failed) {
                throw;
            }
            failed(error);
        }
    };
    std::vector<std::string> names;
    tryTo([&] { names = namesIn(directory); });
    for (const auto& name : names) {
        const auto path = directory / name;
        tryTo([&] {
            const auto found = status(path, O_NOFOLLOW);
            if (found && S_ISDIR(found->st_mode)) {
                walk(path, visit, failed);
            } else if (found) {
                visit(path, *found);
            }
        });
    }
}

} // namespace Core::ZUL
