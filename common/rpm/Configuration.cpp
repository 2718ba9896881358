#include "common/rpm/Configuration.h"

#include "common/LogLine.h"

#include <rpm/rpmlib.h>
#include <rpm/rpmmacro.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <glob.h>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace Common::Rpm {

namespace {

// The files that librpm reads, as patterns of glob(3); available only after the first load.
std::string configurationFiles() {
    if (macrofiles == nullptr) {
        return {};
    }
    const std::string directory = rpmConfigDir();
    auto files = std::string(macrofiles) + ":" + directory + "/rpmrc:" + directory +
                 "/*/rpmrc:/etc/rpmrc:/etc/rpm/platform:~/.rpmrc:";
    const std::string variable = "%{_target}";
    const std::unique_ptr<char, decltype(&std::free)> target(rpmExpand(variable.c_str(), nullptr), std::free);
    for (auto at = files.find(variable); at != std::string::npos; at = files.find(variable, at)) {
        files.replace(at, variable.size(), target.get() == variable ? "" : target.get());
    }
    return files;
}

// Paths with the inode, size and times of each; -1 where nothing is.
using Stamps = std::map<std::string, std::array<long, 6>>;

std::array<long, 6> stampOf(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return {-1};
    }
    return {static_cast<long>(status.st_ino), status.st_size,        status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec,           status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

std::vector<std::string> matches(const std::string& pattern) {
    glob_t found{};
    std::vector<std::string> paths;
    if (glob(pattern.c_str(), GLOB_TILDE | GLOB_NOCHECK, nullptr, &found) == 0) {
        paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    }
    globfree(&found);
    return paths;
}

// The state of all configuration files, and of the directories in which further files may be created.
Stamps stampsOfFiles() {
    Stamps stamps;
    std::istringstream patterns(configurationFiles());
    patterns.exceptions(std::ios::badbit); // a failed allocation is not the end
    for (std::string pattern; std::getline(patterns, pattern, ':');) {
        const std::filesystem::path path(pattern);
        for (const auto& directory : matches(path.parent_path() / "")) {
            const auto files = matches(directory + path.filename().string());
            for (const auto& file : files) {
                stamps[file] = stampOf(file);
            }
            if (path.filename().string().find_first_of("*?[") != std::string::npos) {
                stamps[directory] = stampOf(directory);
            }
        }
    }
    return stamps;
}

bool haveChanged(const Stamps& stamps) {
    return std::any_of(stamps.begin(), stamps.end(),
                       [](const auto& entry) { return stampOf(entry.first) != entry.second; });
}

// All macros after a load.
std::string macroTable() {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&text, &size);
    if (stream == nullptr) {
        return {};
    }
    rpmDumpMacroTable(nullptr, stream);
    std::fclose(stream);
    const std::unique_ptr<char, decltype(&std::free)> owner(text, std::free);
    return {text, size};
}

} // namespace

void readRpmConfiguration() {
    static Stamps trusted;           // of the files whose load need not be repeated
    static std::size_t previous = 0; // hash of the macros after the last load
    if (!trusted.empty() && !haveChanged(trusted)) {
        return;
    }
    // Taken before the load, so that a change during the load causes another one.
    auto stamps = stampsOfFiles();
    // Each load pushes all macros again onto the existing ones, about 72 kB a time.
    rpmFreeMacros(nullptr);
    rpmFreeRpmrc();
    if (rpmReadConfigFiles(nullptr, nullptr) != 0) {
        logWarning() << "cannot read RPM configuration files";
        trusted.clear();
        return;
    }
    // librpm does not report a file that it could not read, so only two loads with the same macros are
    // trusted.
    const auto loaded = std::hash<std::string>()(macroTable());
    trusted = loaded == std::exchange(previous, loaded) ? std::move(stamps) : Stamps();
}

} // namespace Common::Rpm
