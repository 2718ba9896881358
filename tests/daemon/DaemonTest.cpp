#include "tests/daemon/DaemonTest.h"

#include <algorithm>
#include <csignal>
#include <unistd.h>

namespace Testbed {

void DaemonTest::SetUp() {
    std::filesystem::create_directories(etc);
    const auto probe = run(inNamespace("mount --bind " + etc.string() + " /etc"));
    if (probe.status != 0) {
        GTEST_SKIP() << "no right to make a mount namespace: " << probe.output;
    }
    writeFile(etc / "rpm/platform", "riscv64-vendor-linux\n");
    writeFile(etc / "os-release", "NAME=Test\nVERSION_ID=4.2\n");
    writeFile(etc / "zul/zul.conf",
              "[database]\nroot_directory=" + (scratch.path() / "apps").string() + "\n");
    std::filesystem::create_directories(scratch.path() / "apps");
    const auto command =
        "mount --bind " + etc.string() + " /etc && " + preparation + " && exec " VENDARA_DAEMON;
    daemon.emplace(inNamespace(command), Process::Options{.environment = {{"HOME", scratch.path()}}});
    ASSERT_TRUE(waitForService()) << daemon->output();
}

void DaemonTest::TearDown() {
    if (!daemon) {
        return;
    }
    if (daemon->isRunning()) {
        daemon->signal(SIGTERM);
        for (auto* peer : std::initializer_list<ScriptedPeer*>{&zul, &runtime, &identification}) {
            peer->releaseCalls();
        }
    }
    EXPECT_EQ(daemon->wait(), expectedStatus) << daemon->output();
}

std::vector<std::string> DaemonTest::inNamespace(const std::string& command) {
    std::vector<std::string> arguments{"unshare", "--mount"};
    if (geteuid() != 0) {
        arguments.insert(arguments.end(), {"--user", "--map-current-user", "--keep-caps"});
    }
    arguments.insert(arguments.end(), {"bash", "-c", command});
    return arguments;
}

bool DaemonTest::isHelperWaiting() const {
    const auto tasks = "/proc/" + std::to_string(daemon->pid()) + "/task";
    const std::filesystem::directory_iterator threads(tasks);
    return std::any_of(begin(threads), end(threads), [](const auto& thread) {
        return readFile(thread.path() / "wchan").find("fuse") != std::string::npos;
    });
}

bool DaemonTest::logged(const std::string& text) {
    return waitUntil([&] { return ("\n" + daemon->output()).find("\n" + text + "\n") != std::string::npos; });
}

std::string DaemonTest::packageFile(const std::string& name) {
    return buildPackage(scratch.path() / "packages", {.name = name});
}

Client::Operation DaemonTest::beginInstallation(Client& client) {
    zul.hold("Install");
    auto operation = client.install(packageFile());
    EXPECT_TRUE(zul.waitForCalls("Install", 1));
    return operation;
}

Client::Operation DaemonTest::prepareUpgrade(Client& client, const std::string& name) {
    setInstalled({name});
    auto operation = client.install(packageFile(name));
    EXPECT_TRUE(client.waitForStatus(operation, 90));
    std::filesystem::create_directories(next(name));
    return operation;
}

void DaemonTest::setInstalled(const std::vector<std::string>& ids) {
    std::vector<Common::PackageProperties> packages(ids.size());
    std::transform(ids.begin(), ids.end(), packages.begin(),
                   [](const std::string& id) { return PackageManager::package(id); });
    zul.setPackages(packages);
}

} // namespace Testbed
