#include "devkit/zul-service/ProcessScan.h"

#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>

namespace Devkit {

namespace {

namespace fs = std::filesystem;

bool leadsBelow(const fs::path& link, const std::string& prefix) {
    std::error_code error;
    const auto target = fs::read_symlink(link, error);
    return !error && (target.native() + "/").starts_with(prefix);
}

bool mapsFileBelow(const fs::path& process, const std::string& prefix) {
    std::ifstream maps(process / "maps");
    for (std::string line; std::getline(maps, line);) {
        // proc(5): the path is the last field, and no field before it has a "/".
        const auto path = line.find('/');
        if (path != std::string::npos && line.compare(path, prefix.size(), prefix) == 0) {
            return true;
        }
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
