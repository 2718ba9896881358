// A package manager on the package database library. Upgrades are left out: see the operations of Database.
//
//     package-manager DIRECTORY [install FILE | remove ID]
//
// DIRECTORY stands for the system: "ca.pem" and "system-developer-keyid" in it say whom to trust.

#include "common/Error.h"
#include "core/zul/Database.h"
#include "core/zul/Package.h"

#include <iostream>

int main(int argc, char** argv) try {
    const std::filesystem::path system = argc > 1 ? argv[1] : ".";
    const std::string command = argc > 3 ? argv[2] : "";
    std::filesystem::create_directories(system / "system");
    Core::ZUL::Database database(system / "apps", system / "temp", system / "system");
    if (command == "install") {
        const auto package =
            Core::ZUL::Package::fromFile(argv[3], {system / "ca.pem", system / "system-developer-keyid"});
        package.extract(argv[3], system / "temp/new");
        database.install(package,
                         {{"certificate.id", package.developerCms()->certificate().keyId()},
                          {"certificate.subgroup", "developer"}},
                         system / "temp/new");
    } else if (command == "remove") {
        database.remove(argv[3]);
    }
    for (const auto& [directory, record] : database.packages()) {
        std::cout << record.at("general.id") << ' ' << record.at("general.version") << '\n';
    }
} catch (const Common::Error& error) {
    std::cerr << Common::errorNameOf(error.code()) << ": " << error.what() << '\n';
    return 1;
}
