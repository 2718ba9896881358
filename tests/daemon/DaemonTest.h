#pragma once

#include "testbed/PrivateBus.h"
#include "testbed/Process.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScratchDirectory.h"
#include "testbed/ScriptedPeers.h"
#include "testbed/WaitUntil.h"

#include <gmock/gmock.h>

#include <optional>

namespace Testbed {

/// The real daemon between scripted peers on two private buses, with an /etc of its own.
class DaemonTest : public testing::Test {
protected:
    /// Returns when the daemon answers.
    void SetUp() override;
    /// Ends the daemon in order, unless the test has; a sanitizer that found something makes it fail.
    void TearDown() override;

    /// @return whether the log has a line with the text within the limit of waitUntil()
    bool logged(const std::string& text);
    /// A real package of this name.
    std::string packageFile(const std::string& name = "com.example.app");
    /// Has the package manager list packages of these names.
    void setInstalled(const std::vector<std::string>& ids);

    /// Requests an installation of that package, which the package manager holds back until it is told to
    /// answer. Returns when it has been called for the first time.
    Client::Operation beginInstallation(Client& client);
    /// Requests an upgrade of an installed package and prepares it in the database. Returns at status 90.
    Client::Operation prepareUpgrade(Client& client, const std::string& name = "com.example.app");
    /// The prepared version of a package in the database.
    [[nodiscard]] std::filesystem::path next(const std::string& name = "com.example.app") const {
        return scratch.path() / "apps" / name / "next";
    }

    /// A shell command in a mount namespace; a user who is not root gets a user namespace around it.
    static std::vector<std::string> inNamespace(const std::string& command);
    /// Whether a thread of the daemon waits for a file system.
    [[nodiscard]] bool isHelperWaiting() const;

    ScratchDirectory scratch;
    std::string preparation = "true"; ///< run in the daemon's mount namespace before it
    std::filesystem::path etc = scratch.path() / "etc";
    PrivateBuses buses;
    PackageManager zul;
    RuntimeManager runtime;
    Identification identification;
    std::optional<Process> daemon;
    int expectedStatus = 0; ///< of the daemon, however it ends
};

} // namespace Testbed
