#include "common/rpm/Configuration.h"

#include "common/LogLine.h"

#include <rpm/rpmlib.h>
#include <rpm/rpmmacro.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <glob.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <utility>

namespace Common::Rpm {

namespace {

// The files that librpm reads, as patterns of glob(3); it knows them only once it has read them.
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

void append(std::string& stamp, const char* path) {
    struct stat status {};
    if (stat(path, &status) == 0) {
        for (const auto number :
             {static_cast<long>(status.st_ino), static_cast<long>(status.st_size), status.st_mtim.tv_sec,
              status.st_mtim.tv_nsec, status.st_ctim.tv_sec, status.st_ctim.tv_nsec}) {
            stamp += std::to_string(number) + ' ';
        }
        stamp += path;
    }
}

// Differs when any of the files has changed.
std::string stampOfFiles() {
    std::string stamp;
    const auto files = configurationFiles();
    for (std::size_t begin = 0; begin < files.size();) {
        const auto end = files.find(':', begin);
        glob_t found{};
        if (glob(files.substr(begin, end - begin).c_str(), GLOB_TILDE, nullptr, &found) == 0) {
            for (std::size_t index = 0; index < found.gl_pathc; ++index) {
                append(stamp, found.gl_pathv[index]);
            }
        }
        globfree(&found);
        begin = end + 1;
    }
    return stamp;
}

// All macros, as the load has left them.
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
    static std::string trusted;      // the stamp of a load that needs no repetition
    static std::size_t previous = 0; // what the last load has given
    // Taken before the load, so that a change during it is seen at the next one.
    auto stamp = stampOfFiles();
    if (!stamp.empty() && stamp == trusted) {
        return;
    }
    // Each load pushes the macros once more on those that stand already, some 72 kB a time.
    rpmFreeMacros(nullptr);
    rpmFreeRpmrc();
    if (rpmReadConfigFiles(nullptr, nullptr) != 0) {
        logWarning() << "cannot read RPM configuration files";
        trusted.clear();
        return;
    }
    // librpm does not report a file that it could not read this time. Two loads that agree are trusted.
    const auto loaded = std::hash<std::string>()(macroTable());
    trusted = loaded == std::exchange(previous, loaded) ? std::move(stamp) : std::string();
}

} // namespace Common::Rpm
