// A package manager on the package database library: installs, upgrades, removes and lists.
//
//     package-manager DIRECTORY [install FILE | remove ID]
//
// DIRECTORY represents the system: it has the trusted certificates, "ca.pem", and "system-developer-keyid".
// The database is created below it, in directories that must not exist yet. Installing needs root, because
// only CAP_SYS_ADMIN may set the attribute "security.ima" of signed files.

#include "common/Error.h"
#include "common/PlatformFacts.h"
#include "core/zul/Database.h"

#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using Core::ZUL::Database;
using Core::ZUL::Package;

namespace {

constexpr const char* usage = "usage: package-manager DIRECTORY [install FILE | remove ID]\n";

/// Creates the database's directories, or accepts those that it created before. Directories of other programs
/// are refused, because recovery deletes unknown files.
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

/// Cleans up after a killed process and refreshes the mappings. If the mappings of one package cannot be
/// created, the other packages are still refreshed.
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

void install(Database& database, const fs::path& file, const fs::path& system) {
    const auto package = Package::fromFile(file, {system / "ca.pem", system / "system-developer-keyid"});
    package.requireArchitecture(Common::getPlatformArchitecture());
    if (database.installFile(package, file)) {
        // A real one waits here until the application has ended.
        database.completeUpgrade(package);
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
