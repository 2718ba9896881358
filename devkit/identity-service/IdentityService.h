#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <filesystem>
#include <memory>
#include <string>

namespace Devkit {

/// Identifies the application and the user of a bus name by the process of the connection: its executable and
/// its user. For an executable in a package's directory the application is the package, so it keeps its
/// identity when it is upgraded.
///
/// For development only: programs of the same interpreter are one application, the process may have executed
/// another program since it connected, and an ordinary user cannot read the processes of others. A device
/// queries the service that started the process. Main thread only.
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
