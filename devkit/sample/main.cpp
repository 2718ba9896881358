// The sample application of the tour: a service that reports its own version.

#include <sdbus-c++/sdbus-c++.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

namespace {

const std::string name = "org.example.sample";

// An installed package's files are in one directory, and the program's real path leads there.
std::string readVersion() {
    const auto package = std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
    std::ifstream file(package / "data/version");
    std::string version;
    std::getline(file, version);
    return version;
}

} // namespace

int main() {
    try {
        const std::string version = readVersion();
        const auto connection = sdbus::createSessionBusConnection();
        const auto object = sdbus::createObject(*connection, "/org/example/sample");
        object->registerMethod("Version").onInterface(name).withOutputParamNames("version").implementedAs(
            [&] { return std::string(version); });
        object->finishRegistration();
        connection->requestName(name);
        std::cout << "the sample application runs in version " << version << std::endl;
        connection->enterEventLoop();
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::cerr << error.what() << std::endl;
        return EXIT_FAILURE;
    }
}
