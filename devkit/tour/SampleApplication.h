#pragma once

#include "common/BusClient.h"
#include "devkit/support/NameWatch.h"

#include <filesystem>
#include <string>

namespace Devkit {

/// The sample application: how it is packaged, and what a running one tells. One thread.
class SampleApplication {
public:
    inline static const std::string id = "org.example.sample";

    /// @param directory  the platform's, where packages are made
    /// @param keys       directory of the keys that sign them
    /// Throws sdbus::Error when there is no session bus.
    SampleApplication(std::filesystem::path directory, std::filesystem::path keys);

    /// Packages the application by rpmbuild and signs it as developer and as client.
    /// @param version  the package's version, without its release
    /// @return path of the package file. Throws std::runtime_error with what the program said that failed.
    [[nodiscard]] std::filesystem::path package(const std::string& version) const;

    /// Copies a package file with one bit of its payload changed.
    [[nodiscard]] std::filesystem::path damage(const std::filesystem::path& package) const;

    /// Waits until the application is on the bus, at most ten seconds, and asks it for its version.
    [[nodiscard]] std::string awaitVersion();

    /// Who owns the application's name, according to the identification service.
    [[nodiscard]] std::string identity();

private:
    std::filesystem::path directory_;
    std::filesystem::path keys_;
    NameWatch names_;
    Common::BusClient application_;
    Common::BusClient identification_;
};

} // namespace Devkit
