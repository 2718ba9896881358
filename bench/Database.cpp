// Compares the package database with the system's own tools on the same data, in one run:
// listing with `rpm -qa`, installation with `cp -a`, removal with `rm -rf`.
// Usage: bench-database [DIRECTORY]   a directory on the file system to be measured, by default /var/tmp

#include "core/zul/Database.h"

#include "common/TemporaryDirectory.h"
#include "core/zul/Record.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>

namespace {

namespace fs = std::filesystem;
using Core::ZUL::Database;
using Core::ZUL::PackageData;
using Core::ZUL::PackageIdentity;

constexpr int packageCount = 1000;
constexpr int directoryCount = 100;
constexpr int filesPerDirectory = 100;
constexpr int rounds = 5;
const PackageData entries{{"certificate.id", "0a1b"}, {"certificate.subgroup", "apps"}};

/// Runs a command of this program's own making.
void shell(const std::string& command) {
    if (std::system((command + " >/dev/null").c_str()) != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

double milliseconds(const std::function<void()>& action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// The measured values of one table, by name.
class Table {
public:
    void add(const std::string& name, double value) { values_[name].push_back(value); }

    void print(const std::string& title, const std::string& reference) const {
        const auto base = median(values_.at(reference));
        std::printf("\n%s (median of %d)\n", title.c_str(), rounds);
        for (const auto& [name, values] : values_) {
            std::printf("  %-40s %9.1f ms  %6.2f x\n", name.c_str(), median(values), median(values) / base);
        }
    }

private:
    std::map<std::string, std::vector<double>> values_;
};

void makeDatabase(const fs::path& root) {
    for (int number = 0; number < packageCount; ++number) {
        const PackageIdentity package("org.example.package" + std::to_string(number), "1.0-1", "Example",
                                      "Package");
        const auto version = root / package.id() / package.version();
        fs::create_directories(version);
        writeRecord(package, entries, version);
        fs::create_symlink(version, root / package.id() / "current");
    }
}

/// As many packages in an rpm database, by one build with as many sub-packages.
void makeRpmDatabase(const fs::path& directory) {
    fs::create_directories(directory);
    std::ofstream spec(directory / "all.spec");
    spec << "Name: all\nVersion: 1.0\nRelease: 1\nSummary: x\nLicense: none\nBuildArch: "
            "noarch\n%description\nx\n";
    for (int number = 0; number < packageCount; ++number) {
        const auto name = "org.example.package" + std::to_string(number);
        spec << "%package -n " << name << "\nSummary: x\n%description -n " << name << "\nx\n%files -n "
             << name << "\n";
    }
    spec.close();
    const auto& at = directory.native();
    shell("rpmbuild -bb --quiet -D '_topdir " + at + "' " + at + "/all.spec 2>&1");
    shell("find " + at + "/RPMS -name '*.rpm' | xargs rpm --dbpath " + at +
          "/db --justdb --nodeps --nosignature -i");
}

void benchmarkListing(const fs::path& scratch, const std::string& self) {
    makeDatabase(scratch / "listed");
    makeRpmDatabase(scratch / "rpm");
    Table table;
    for (int round = 0; round < rounds; ++round) {
        table.add("rpm -qa",
                  milliseconds([&] { shell("rpm --dbpath " + (scratch / "rpm/db").native() + " -qa"); }));
        table.add("a process that lists and prints",
                  milliseconds([&] { shell(self + " --list " + (scratch / "listed").native()); }));
        table.add("packages()", milliseconds([&] {
                      if (Database(scratch / "listed", scratch / "tmp").packages().size() != packageCount) {
                          throw std::runtime_error("packages are missing");
                      }
                  }));
    }
    table.print("Listing 1,000 packages", "rpm -qa");
}

void makeTree(const fs::path& tree) {
    for (int directory = 0; directory < directoryCount; ++directory) {
        const auto path = tree / std::to_string(directory);
        fs::create_directories(path);
        for (int file = 0; file < filesPerDirectory; ++file) {
            std::ofstream(path / std::to_string(file)) << std::string(1024, 'x');
        }
    }
}

/// @param source  top directory of the package's files: one that is mapped, or another
void benchmarkOperations(const fs::path& scratch, const std::string& source) {
    const auto tree = (scratch / ("tree-" + source)).native();
    const auto copy = (scratch / "copy").native();
    const auto unpacked = (scratch / "tmp/unpacked").native();
    makeTree(tree + "/" + source);
    Database database(scratch / "app", scratch / "tmp", scratch / "system");
    fs::create_directories(scratch / "system");
    const PackageIdentity package("org.example.large", "1.0-1");
    const auto copyTree = "cp -a " + tree + " " + copy;
    const auto flushCopy = "sync -f " + copy;
    const auto unpack = "cp -a " + tree + " " + unpacked;
    const auto flushUnpacked = "sync -f " + unpacked;
    const auto removeCopy = "rm -rf " + copy;
    Table installing;
    Table removing;
    for (int round = 0; round < rounds; ++round) {
        fs::create_directories(scratch / "tmp");
        shell(unpack);
        shell(flushUnpacked);
        installing.add("install, files already on disk",
                       milliseconds([&] { database.install(package, entries, unpacked); }));
        removing.add("remove", milliseconds([&] { database.remove(package.id()); }));
        shell(unpack);
        installing.add("install, files just unpacked",
                       milliseconds([&] { database.install(package, entries, unpacked); }));
        database.remove(package.id());
        installing.add("cp -a", milliseconds([&] { shell(copyTree); }));
        shell(removeCopy);
        installing.add("cp -a; sync -f", milliseconds([&] {
                           shell(copyTree);
                           shell(flushCopy);
                       }));
        removing.add("rm -rf", milliseconds([&] { shell(removeCopy); }));
    }
    const auto title = source == "data" ? ", each of them mapped" : ", not mapped";
    installing.print(std::string("Installing 10,000 files") + title, "cp -a");
    removing.print(std::string("Removing 10,000 files") + title, "rm -rf");
}

int list(const fs::path& root) {
    for (const auto& [directory, data] : Database(root, "/nonexistent").packages()) {
        std::cout << data.at("general.id") << '-' << data.at("general.version") << '\n';
    }
    return 0;
}

} // namespace

int main(int count, char** arguments) {
    if (count == 3 && std::string(arguments[1]) == "--list") {
        return list(arguments[2]);
    }
    try {
        const Common::TemporaryDirectory directory(count > 1 ? arguments[1] : "/var/tmp", "bench-database");
        const auto& scratch = directory.path().native();
        benchmarkListing(scratch, fs::canonical("/proc/self/exe").native());
        benchmarkOperations(scratch, "data");
        benchmarkOperations(scratch, "files");
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    return 0;
}
