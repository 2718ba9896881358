#include "devkit/zul-service/ProcessScan.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <system_error>
#include <unistd.h>

namespace Devkit {

namespace {

namespace fs = std::filesystem;

// A process that has ended and, except for root, a process of another user show nothing. Any other error
// means that the answer is not known.
void requireHidden(int error, const fs::path& path) {
    if (error != 0 && error != ENOENT && error != ESRCH && error != EACCES && error != EPERM) {
        throw fs::filesystem_error("couldn't look at a process", path, {error, std::generic_category()});
    }
}

bool leadsBelow(const fs::path& link, const std::string& prefix) {
    std::error_code error;
    const auto target = fs::read_symlink(link, error);
    requireHidden(error.value(), link);
    return !error && (target.native() + "/").starts_with(prefix);
}

bool mapsFileBelow(const fs::path& process, const std::string& prefix) {
    errno = 0;
    std::ifstream maps(process / "maps");
    for (std::string line; std::getline(maps, line);) {
        // proc(5): the path is the last field, and no field before it has a "/".
        const auto path = line.find('/');
        if (path != std::string::npos && line.compare(path, prefix.size(), prefix) == 0) {
            return true;
        }
    }
    if (!maps.is_open() || maps.bad()) {
        requireHidden(errno, process);
    }
    return false;
}

bool hasOpenBelow(const fs::path& process, const std::string& prefix) {
    std::error_code error;
    for (fs::directory_iterator entry(process / "fd", error), end; !error && entry != end;
         entry.increment(error)) {
        if (leadsBelow(entry->path(), prefix)) {
            return true;
        }
    }
    requireHidden(error.value(), process);
    return false;
}

bool usesFileBelow(const fs::path& process, const std::string& prefix) {
    return leadsBelow(process / "cwd", prefix) || mapsFileBelow(process, prefix) ||
           hasOpenBelow(process, prefix);
}

} // namespace

std::optional<pid_t> findProcessUsing(const fs::path& directory) {
    const auto prefix = directory.native() + "/";
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const pid_t process = std::atoi(entry.path().filename().c_str());
        if (process > 0 && process != getpid() && usesFileBelow(entry.path(), prefix)) {
            return process;
        }
    }
    return {};
}

} // namespace Devkit
