#include "common/PlatformFacts.h"

#include "common/Error.h"

#include <fstream>
#include <string_view>
#include <sys/utsname.h>

namespace Common {

std::string getPlatformArchitecture(const std::filesystem::path& platformFile) {
    std::string word;
    if (std::ifstream stream(platformFile); stream.is_open()) {
        stream >> word;
    } else {
        utsname names{};
        if (uname(&names) != 0) {
            throw Error(ErrorCode::Internal, "couldn't read rpm platform config");
        }
        word = names.machine;
    }
    if (word.empty()) {
        throw Error(ErrorCode::Internal, "couldn't get platform architecture");
    }
    return word.substr(0, word.find('-'));
}

std::string getOsVersion(const std::filesystem::path& osReleaseFile) {
    constexpr std::string_view key = "VERSION_ID=";
    std::ifstream stream(osReleaseFile);
    for (std::string line; std::getline(stream, line);) {
        if (line.compare(0, key.size(), key) == 0) {
            return line.substr(key.size());
        }
    }
    throw Error(ErrorCode::Internal, "couldn't retrieve Quenra OS version");
}

} // namespace Common
