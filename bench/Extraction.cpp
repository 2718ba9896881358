// Unpacks a package of one large file and one of many small files, per compressor, side by side with the
// usual tools, and prints the medians. Usage: bench-extraction [rounds [only]], where "only" is a part of the
// titles, for example "large" or "gzdio". Works below the temporary directory; run it alone.

#include "common/UniqueFd.h"
#include "core/zul/Package.h"
#include "testbed/Process.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScratchDirectory.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

const std::string home = "/usr/share/com.example.app";

/// Text of words that compresses about as well as programs do.
std::string text(std::size_t size, std::mt19937& random) {
    static const std::vector<std::string> words = [] {
        std::mt19937 letters(0);
        std::vector<std::string> made(20000);
        for (auto& word : made) {
            word = std::to_string(letters()) + std::to_string(letters()) + " ";
        }
        return made;
    }();
    std::string result;
    while (result.size() < size) {
        result += words[random() % words.size()];
    }
    result.resize(size);
    return result;
}

void makeLargeFile(const fs::path& directory) {
    std::mt19937 random(1);
    std::ofstream file(directory / "large");
    for (int piece = 0; piece < 200; ++piece) {
        file << text(std::size_t{1024} * 1024, random);
    }
}

void makeManyFiles(const fs::path& directory) {
    std::mt19937 random(2);
    for (int group = 0; group < 200; ++group) {
        const auto inner = directory / ("group" + std::to_string(group));
        fs::create_directory(inner);
        for (int file = 0; file < 100; ++file) {
            std::ofstream(inner / ("file" + std::to_string(file))) << text(random() % 8192, random);
        }
    }
}

/// @param marker  a directive for all files
fs::path makePackage(const fs::path& directory, const std::string& name, const std::string& marker,
                     const std::string& payload, const fs::path& source) {
    Testbed::PackageSpec spec;
    spec.version = name;
    spec.payload = payload;
    spec.installScript =
        "mkdir -p %{buildroot}" + home + " && cp -r " + source.string() + "/. %{buildroot}" + home;
    spec.fileList = marker + " " + home;
    return Testbed::buildPackage(directory, spec);
}

double seconds(const fs::path& destination, const std::function<void()>& unpack) {
    fs::create_directory(destination);
    sync(); // what one tool left to be written must not slow the next
    const auto start = std::chrono::steady_clock::now();
    unpack();
    const auto end = std::chrono::steady_clock::now();
    fs::remove_all(destination);
    return std::chrono::duration<double>(end - start).count();
}

void shell(const std::string& command) {
    if (Testbed::run({"sh", "-c", command}).status != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void compare(const char* title, const fs::path& scratch, const fs::path& package, int rounds) {
    const auto into = scratch / "unpacked";
    const Core::ZUL::Package ours("com.example.app", "1-1");
    const std::string file = package.string();
    const std::string go = "cd " + into.string() + " && ";
    std::array<std::vector<double>, 3> times;
    for (int round = 0; round < rounds; ++round) {
        times[0].push_back(seconds(into, [&] { ours.extract(package, into); }));
        times[1].push_back(seconds(into, [&] { shell(go + "rpm2cpio " + file + " | cpio -idm --quiet"); }));
        times[2].push_back(seconds(into, [&] { shell(go + "bsdtar -xf " + file); }));
    }
    const double fastest = std::min(median(times[1]), median(times[2]));
    std::printf("%-22s %8.3f %8.3f %8.3f   %5.2f\n", title, median(times[0]), median(times[1]),
                median(times[2]), median(times[0]) / fastest);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) try {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
    const std::string only = argc > 2 ? argv[2] : "";
    const Testbed::ScratchDirectory scratch;
    setenv("HOME", scratch.path().c_str(), 1);
    fs::create_directories(scratch.path() / "large");
    fs::create_directories(scratch.path() / "many");
    makeLargeFile(scratch.path() / "large");
    makeManyFiles(scratch.path() / "many");
    std::printf("%-22s %8s %8s %8s   ours / faster\n", "seconds, median", "ours", "cpio", "bsdtar");
    for (const std::string source : {"many", "large"}) {
        for (const std::string payload : {"w6.gzdio", "w0.xzdio", "w3.zstdio", "w9.bzdio"}) {
            const auto title = source + " " + payload;
            if (title.find(only) == std::string::npos) {
                continue;
            }
            const auto package =
                makePackage(scratch.path(), source + "." + payload.substr(payload.find('.') + 1), "%config",
                            payload, scratch.path() / source);
            compare(title.c_str(), scratch.path(), package, rounds);
        }
    }
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "bench-extraction: %s\n", error.what());
    return 1;
}
