#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <filesystem>
#include <memory>
#include <string>

namespace Devkit {

/// Tells who owns a bus name, from what the bus knows of the connection's process: the program that it
/// executes and the user that it runs as. An executable in a package's directory counts as the package, so
/// that an application stays the same one over its upgrades.
///
/// What it tells is as good as these facts: programs of one interpreter are one application, the process may
/// have executed something else since it connected, and processes of another user are hidden from a plain
/// user. Good enough for development; a device asks the one who started the process. Main thread only.
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
