// Compares the extraction of a package of one large file and of one of many small files, per compressor, with
// the usual tools. Prints the medians of wall seconds and processor seconds, and the share of the files'
// digests, which the other tools do not check. Usage: bench-extraction [rounds [only]], where "only" is a
// part of the titles, for example "large" or "gzdio". Works below the temporary directory. Run it on an idle
// machine, and also on one processor, with taskset -c 0.

#include "core/zul/package/Extraction.h"

#include "common/rpm/ContentDigest.h"
#include "testbed/Process.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScratchDirectory.h"

#include <rpm/rpmpgp.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
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

fs::path makePackage(const fs::path& directory, const std::string& name, const std::string& payload,
                     const fs::path& source) {
    return Testbed::buildPackage(directory, {.version = name,
                                             .payload = payload,
                                             .installScript = "mkdir -p %{buildroot}" + home + " && cp -r " +
                                                              source.string() + "/. %{buildroot}" + home,
                                             .fileList = "%config " + home});
}

struct Times {
    double wall = 0;
    double processor = 0; ///< of this process and of those that it ran
};

double processorSeconds() {
    double seconds = 0;
    for (const auto who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        getrusage(who, &usage);
        for (const auto& time : {usage.ru_utime, usage.ru_stime}) {
            seconds += static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
        }
    }
    return seconds;
}

Times measure(const std::function<void()>& work) {
    const auto processor = processorSeconds();
    const auto start = std::chrono::steady_clock::now();
    work();
    const auto end = std::chrono::steady_clock::now();
    return {std::chrono::duration<double>(end - start).count(), processorSeconds() - processor};
}

Times measure(const fs::path& destination, const std::function<void()>& unpack) {
    fs::create_directory(destination);
    sync(); // pending writes of one tool must not slow the next
    const auto times = measure(unpack);
    fs::remove_all(destination);
    return times;
}

void shell(const std::string& command) {
    if (Testbed::run({"sh", "-c", command}).status != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

Times median(std::vector<Times> values) {
    const auto middle = [&values](double Times::*member) {
        std::sort(values.begin(), values.end(),
                  [member](const Times& left, const Times& right) { return left.*member < right.*member; });
        return values[values.size() / 2].*member;
    };
    return {middle(&Times::wall), middle(&Times::processor)};
}

/// The time to compute the digests of a folder's files, each in memory.
Times digestTimes(const fs::path& directory) {
    Times total;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        if (entry.is_regular_file()) {
            const auto content = Testbed::readFile(entry.path());
            const auto times = measure([&] {
                Common::Rpm::ContentDigest digest({PGPHASHALGO_SHA256, std::string(32, '\0')});
                digest.update(content);
                static_cast<void>(digest.matches());
            });
            total.wall += times.wall;
            total.processor += times.processor;
        }
    }
    return total;
}

void compare(const char* title, const fs::path& scratch, const fs::path& package, int rounds) {
    const auto into = scratch / "unpacked";
    const Core::ZUL::PackageIdentity ours("com.example.app", "1-1");
    const std::string file = package.string();
    const std::string go = "cd " + into.string() + " && ";
    std::array<std::vector<Times>, 3> times;
    for (int round = 0; round < rounds; ++round) {
        times[0].push_back(measure(into, [&] {
            Core::ZUL::unpack(Core::ZUL::PackageFile(package), ours, nullptr, into,
                              Core::ZUL::attachAttribute);
        }));
        times[1].push_back(measure(into, [&] { shell(go + "rpm2cpio " + file + " | cpio -idm --quiet"); }));
        times[2].push_back(measure(into, [&] { shell(go + "bsdtar -xf " + file); }));
    }
    std::printf("%-16s", title);
    for (const auto member : {&Times::wall, &Times::processor}) {
        const std::array<double, 3> seconds{median(times[0]).*member, median(times[1]).*member,
                                            median(times[2]).*member};
        std::printf("   %7.3f %7.3f %7.3f %6.2f", seconds[0], seconds[1], seconds[2],
                    seconds[0] / std::min(seconds[1], seconds[2]));
    }
    std::printf("\n");
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
    std::printf("%-16s   %-30s   %-30s\n%-16s", "median seconds", "wall", "processor", "");
    for (int column = 0; column < 2; ++column) {
        std::printf("   %7s %7s %7s %6s", "ours", "cpio", "bsdtar", "ratio");
    }
    std::printf("\n");
    for (const std::string source : {"many", "large"}) {
        const auto digests = digestTimes(scratch.path() / source);
        std::printf("%-16s   %7.3f %25s%7.3f\n", (source + " digests").c_str(), digests.wall, "",
                    digests.processor);
        for (const std::string payload : {"w6.gzdio", "w0.xzdio", "w3.zstdio", "w9.bzdio"}) {
            const auto title = source + " " + payload;
            if (title.find(only) == std::string::npos) {
                continue;
            }
            const auto package =
                makePackage(scratch.path(), source + "." + payload.substr(payload.find('.') + 1), payload,
                            scratch.path() / source);
            compare(title.c_str(), scratch.path(), package, rounds);
        }
    }
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "bench-extraction: %s\n", error.what());
    return 1;
}
