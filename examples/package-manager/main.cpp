// A package manager on the package database library. Upgrades are left out: see the operations of Database.
//
//     package-manager [DIRECTORY [install FILE | remove ID]]
//
// DIRECTORY stands for the system: "ca.pem" and "system-developer-keyid" in it say whom to trust. Installing
// takes root: signed files get the extended attribute "security.ima", which only CAP_SYS_ADMIN may attach.

#include "common/Error.h"
#include "core/zul/Database.h"
#include "core/zul/Package.h"

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <system_error>

namespace fs = std::filesystem;
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

void install(Database& database, const fs::path& file, const fs::path& system) {
    const auto package = Package::fromFile(file, {system / "ca.pem", system / "system-developer-keyid"});
    const Unpacking unpacked(database.tempDirectory());
    package.extract(file, unpacked.path());
    database.install(package,
                     {{"certificate.id", package.developerCms()->certificate().keyId()},
                      {"certificate.subgroup", "developer"}},
                     unpacked.path());
}

} // namespace

int main(int argc, char** argv) try {
    const std::string command = argc > 2 ? argv[2] : "";
    if (argc == 3 || argc > 4 || (argc == 4 && command != "install" && command != "remove")) {
        std::cerr << "usage: package-manager [DIRECTORY [install FILE | remove ID]]\n";
        return 2;
    }
    const fs::path given = argc > 1 ? argv[1] : ".";
    fs::create_directories(given / "apps");
    fs::create_directories(given / "system");
    // Links name the database's directories: by one name, however this one is called.
    const auto system = fs::canonical(given);
    Database database(system / "apps", system / "temp", system / "system");
    // Clears away what a process left that was killed.
    database.recoverDatabase();
    if (command == "install") {
        install(database, argv[3], system);
    } else if (command == "remove") {
        database.remove(argv[3]);
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
