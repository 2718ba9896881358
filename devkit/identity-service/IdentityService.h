#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <filesystem>
#include <memory>
#include <string>

namespace Devkit {

/// Finds the application and the user of a bus name, from what the bus knows of the connection's process: the
/// program that it executes and its user. An executable in a package's directory counts as the package, so
/// that an application keeps its identity over its upgrades.
///
/// This suffices for development: programs of one interpreter are one application, the process may have
/// executed another program since it connected, and an ordinary user cannot see processes of others. A device
/// asks the service that started the process. Main thread only.
class IdentityService {
public:
    /// @param packageRoot  root directory of the package database
    /// Throws sdbus::Error, std::filesystem::filesystem_error.
    IdentityService(sdbus::IConnection& connection, const std::filesystem::path& packageRoot);
    ~IdentityService();
    IdentityService(const IdentityService&) = delete;
    IdentityService& operator=(const IdentityService&) = delete;

private:
    using Identity = sdbus::Result<std::string, std::string>;

    void identifyByBusName(Identity result, const std::string& busName);
    [[nodiscard]] std::string applicationOf(std::uint32_t process) const;

    std::filesystem::path packageRoot_;
    std::unique_ptr<sdbus::IProxy> bus_;
    std::unique_ptr<sdbus::IObject> object_;
};

} // namespace Devkit
