// A package manager on the package database library: installs, upgrades, removes and lists.
//
//     package-manager DIRECTORY [install FILE | remove ID]
//
// DIRECTORY stands for the system: "ca.pem" and "system-developer-keyid" in it say whom to trust. The
// database is made below it, in directories that must not be there yet. Installing takes root: signed files
// get the extended attribute "security.ima", which only CAP_SYS_ADMIN may attach.

#include "common/Error.h"
#include "core/zul/Database.h"
#include "core/zul/package/Package.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace fs = std::filesystem;
using Common::ErrorCode;
using Core::ZUL::Database;
using Core::ZUL::Package;

namespace {

/// A fresh directory to unpack one package in. What a refused package leaves there goes with it.
class Unpacking {
public:
    explicit Unpacking(const fs::path& parent) {
        fs::create_directories(parent);
        auto name = (parent / "package-XXXXXX").native();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "couldn't create " + name);
        }
        path_ = name;
    }
    ~Unpacking() {
        std::error_code ignored; // recovery empties the temporary directory
        fs::remove_all(path_, ignored);
    }
    Unpacking(const Unpacking&) = delete;
    Unpacking& operator=(const Unpacking&) = delete;

    [[nodiscard]] const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

constexpr const char* usage = "usage: package-manager DIRECTORY [install FILE | remove ID]\n";

/// Makes the database's directories, or takes those that it made before. Recovery deletes what it does not
/// know: directories of somebody else's are refused.
/// @return the canonical path of the directory, since links name the database's directories
fs::path openSystem(const fs::path& directory) {
    const auto mark = directory / ".package-manager";
    if (!fs::exists(mark)) {
        for (const auto* name : {"apps", "temp", "system"}) {
            if (fs::exists(fs::symlink_status(directory / name))) {
                throw std::runtime_error((directory / name).string() + " is not this program's");
            }
        }
        fs::create_directories(directory);
        if (!std::ofstream(mark).flush()) {
            throw std::runtime_error("couldn't write " + mark.string());
        }
    }
    for (const auto* name : {"apps", "temp", "system"}) {
        fs::create_directories(directory / name);
    }
    return fs::canonical(directory);
}

/// Clears away what a process left that was killed, and brings the mappings in line. A package whose mappings
/// cannot be made does not keep the others from theirs.
void recover(Database& database) {
    static_cast<void>(database.recoverDatabase());
    for (const auto& [directory, record] : database.packages()) {
        const auto& id = record.at("general.id");
        try {
            database.refreshMappings(id);
        } catch (const Common::Error& error) {
            std::cerr << id << ": " << Common::errorNameOf(error.code()) << ": " << error.what() << '\n';
        }
    }
}

bool isInstalled(Database& database, const std::string& id) {
    try {
        static_cast<void>(database.packageDirectory(id));
        return true;
    } catch (const Common::Error& error) {
        // A damaged package is gone with this look at it.
        if (error.code() != ErrorCode::PackageNotExist &&
            error.code() != ErrorCode::CorruptedInstalledPackage) {
            throw;
        }
        return false;
    }
}

void install(Database& database, const fs::path& file, const fs::path& system) {
    const auto package = Package::fromFile(file, {system / "ca.pem", system / "system-developer-keyid"});
    const bool upgrade = isInstalled(database, package.id());
    if (upgrade) {
        database.checkUpgrade(package);
    }
    const Unpacking unpacked(database.tempDirectory());
    package.extract(file, unpacked.path());
    const Core::ZUL::PackageData entries{
        {"certificate.id", package.developerCms().certificate().keyId()},
        {"certificate.subgroup", package.isSystemDeveloper() ? "system" : "developer"}};
    if (upgrade) {
        database.prepareUpgrade(package, entries, unpacked.path());
        // A real one waits here until the application has ended.
        database.completeUpgrade(package);
    } else {
        database.install(package, entries, unpacked.path());
    }
}

} // namespace

int main(int argc, char** argv) try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() == 1 && (arguments[0] == "--help" || arguments[0] == "-h")) {
        std::cout << usage;
        return 0;
    }
    const auto command = arguments.size() == 3 ? arguments[1] : "";
    if ((arguments.size() != 1 && command != "install" && command != "remove") ||
        arguments[0].starts_with('-')) {
        std::cerr << usage;
        return 2;
    }
    const auto system = openSystem(arguments[0]);
    Database database(system / "apps", system / "temp", system / "system");
    recover(database);
    if (command == "install") {
        install(database, arguments[2], system);
    } else if (command == "remove") {
        database.remove(arguments[2]);
    }
    for (const auto& [directory, record] : database.packages()) {
        std::cout << record.at("general.id") << ' ' << record.at("general.version") << '\n';
    }
    return 0;
} catch (const Common::Error& error) {
    std::cerr << Common::errorNameOf(error.code()) << ": " << error.what() << '\n';
    return 1;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
