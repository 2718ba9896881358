#include "tests/daemon/DaemonTest.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>

using testing::ElementsAre;

namespace Testbed {

namespace {

class ARestartOfThePackageManager : public DaemonTest {
protected:
    Client client;
};

TEST_F(ARestartOfThePackageManager, EndsUpgradesThatWereNotSignalled) {
    std::vector<Client::Operation> upgrades;
    for (const auto* name : {"completed", "prepared", "discarded", "removed"}) {
        upgrades.push_back(prepareUpgrade(client, name));
        std::filesystem::remove(next(name));
    }
    EXPECT_EQ(client.errorOf("Restart", "prepared"), "");
    std::filesystem::create_directory(next("prepared"));
    zul.setPackages({PackageManager::package("completed", "1.0-1"),
                     PackageManager::package("prepared", "1.0-1"),
                     PackageManager::package("discarded", "0.9-1")});
    zul.restart();
    EXPECT_TRUE(client.waitForStatus(upgrades[0], 100));
    EXPECT_TRUE(client.waitForStatus(upgrades[2], 101));
    EXPECT_TRUE(client.waitForStatus(upgrades[3], 101));
    EXPECT_THAT(client.statusesOf(upgrades[1]), ElementsAre(0, 10, 90));
    zul.emit("PackageUpgraded", PackageManager::package("prepared"));
    EXPECT_TRUE(client.waitForStatus(upgrades[1], 100));
}

TEST_F(ARestartOfThePackageManager, IsDetectedWhileThePreviousOneIsHandled) {
    const auto upgrade = prepareUpgrade(client);
    zul.hold("GetPackageList");
    const auto asked = zul.calls("GetPackageList").size();
    zul.restart();
    ASSERT_TRUE(zul.waitForCalls("GetPackageList", asked + 1));
    // It replies, completes the upgrade and restarts before the daemon handles any of this.
    std::filesystem::remove(next());
    daemon->signal(SIGSTOP);
    EXPECT_TRUE(zul.answer("GetPackageList"));
    zul.setPackages({PackageManager::package("com.example.app", "1.0-1")});
    zul.hold("GetPackageList", false);
    zul.restart();
    daemon->signal(SIGCONT);
    EXPECT_TRUE(client.waitForStatus(upgrade, 100));
}

TEST_F(ARestartOfThePackageManager, DoesNotFailAnUpgradeThatIsBeingCompleted) {
    prepareUpgrade(client);
    setInstalled({"com.example.app", "com.example.other"});
    zul.hold("Install");
    const auto upgrade = client.install(packageFile("com.example.other"));
    ASSERT_TRUE(zul.waitForCalls("Install", 2));
    zul.setPackages({PackageManager::package("com.example.app", "0.9-1"),
                     PackageManager::package("com.example.other", "0.9-1")});
    zul.hold("GetPackageList");
    const auto asked = zul.calls("GetPackageList").size();
    zul.restart();
    ASSERT_TRUE(zul.waitForCalls("GetPackageList", asked + 1));
    EXPECT_TRUE(zul.answer("Install"));
    ASSERT_TRUE(client.waitForStatus(upgrade, 90));
    zul.hold("GetPackageList", false);
    EXPECT_TRUE(zul.answer("GetPackageList")); // it renamed "next" and removes the old version now
    EXPECT_EQ(client.errorOf("Start", "a"), "");
    zul.setPackages(
        {PackageManager::package("com.example.app", "0.9-1"), PackageManager::package("com.example.other")});
    zul.emit("PackageUpgraded", PackageManager::package("com.example.other"));
    EXPECT_TRUE(waitUntil([&] { return client.statusesOf(upgrade).size() == 4; }));
    EXPECT_THAT(client.statusesOf(upgrade), ElementsAre(0, 10, 90, 100));
}

TEST_F(ARestartOfThePackageManager, IsQueriedForUpgradesUntilItRepliesAndWhenItRecoversLater) {
    const auto upgrade = prepareUpgrade(client);
    zul.refuse("GetPackageList", "norvane.ZUL.Error.Internal");
    zul.restart();
    EXPECT_TRUE(logged("WARN: couldn't check the awaiting upgrades"));
    zul.setPackages({PackageManager::package("com.example.app", "0.9-1")});
    zul.hold("GetPackageList");
    ASSERT_TRUE(waitUntil([&] { return zul.mostHeld() == 1; }));
    std::filesystem::remove(next()); // its recovery, after it took its name and after the disk was read
    zul.hold("GetPackageList", false);
    zul.refuse("GetPackageList", {});
    EXPECT_TRUE(zul.answer("GetPackageList"));
    zul.setPackages({PackageManager::package("com.example.app", "1.0-1")});
    EXPECT_TRUE(client.waitForStatus(upgrade, 100));
}

TEST_F(ARestartOfThePackageManager, EndsRestartsWhoseUpgradeWasNotSignalled) {
    setInstalled({"com.example.app"});
    std::filesystem::create_directories(next());
    EXPECT_EQ(client.errorOf("Restart", "com.example.app"), "");
    std::filesystem::remove(next());
    zul.restart();
    EXPECT_TRUE(runtime.waitForCalls("InvokeIntent", 1));
    std::filesystem::create_directories(next());
    zul.restart();
    EXPECT_EQ(client.errorOf("Start", "a"), "");
    zul.hold("GetPackageList"); // it recovers
    EXPECT_EQ(client.errorOf("Restart", "com.example.app"), "");
    std::filesystem::remove(next());
    zul.releaseCalls();
    EXPECT_TRUE(runtime.waitForCalls("InvokeIntent", 3));
}

TEST_F(ARestartOfThePackageManager, IsCheckedAgainAfterTheDiskCouldNotBeRead) {
    const auto upgrade = prepareUpgrade(client);
    std::filesystem::remove(next());
    std::filesystem::create_symlink("next", next()); // ELOOP, instead of EIO
    const auto asked = zul.calls("GetPackageList").size();
    zul.restart();
    EXPECT_TRUE(zul.waitForCalls("GetPackageList", asked + 2));
    std::filesystem::remove(next());
    EXPECT_TRUE(client.waitForStatus(upgrade, 100));
    EXPECT_THAT(client.statusesOf(upgrade), ElementsAre(0, 10, 90, 100));
}

TEST_F(ARestartOfThePackageManager, EndsNoUpgradeWhileTheConfigurationCannotBeRead) {
    const auto upgrade = prepareUpgrade(client);
    const auto configuration = etc / "zul/zul.conf";
    const auto directory = etc / "directory";
    std::filesystem::create_directory(directory);
    const auto exchange = [&] { // so that the configuration is never absent
        return renameat2(AT_FDCWD, configuration.c_str(), AT_FDCWD, directory.c_str(), RENAME_EXCHANGE);
    };
    EXPECT_EQ(exchange(), 0);
    zul.restart();
    EXPECT_TRUE(logged("WARN: couldn't check the awaiting upgrades"));
    EXPECT_EQ(exchange(), 0);
    EXPECT_EQ(client.errorOf("Restart", "com.example.app"), "");
    EXPECT_EQ(exchange(), 0);
    EXPECT_EQ(client.errorOf("Restart", "com.example.app"), "") << "uses what it read before";
    EXPECT_THAT(client.statusesOf(upgrade), ElementsAre(0, 10, 90));
    zul.emit("PackageUpgraded", PackageManager::package("com.example.app"));
    zul.emit("PackageUpgraded", PackageManager::package("com.example.app"));
    EXPECT_TRUE(client.waitForStatus(upgrade, 100));
    EXPECT_TRUE(runtime.waitForCalls("InvokeIntent", 2));
}

} // namespace

} // namespace Testbed
