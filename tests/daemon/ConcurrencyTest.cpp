#include "tests/daemon/DaemonTest.h"

#include <array>
#include <atomic>
#include <csignal>
#include <future>
#include <regex>
#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;

namespace Testbed {

namespace {

class TheDaemon : public DaemonTest {
protected:
    Client client;
    Client other;
};

TEST_F(TheDaemon, RepliesWhileAnOperationRuns) {
    const auto first = beginInstallation(client);
    const auto second = other.install(packageFile());
    EXPECT_THAT(other.operations(), ElementsAre(second));
    EXPECT_EQ(client.operations().at(0).status, OperationStatus::InProgress);
    EXPECT_EQ(other.errorOf("Start", "a") + other.errorOf("Restart", "a"), "");
    EXPECT_THAT(other.statusesOf(second), ElementsAre(0));
    zul.answer("Install");
    EXPECT_TRUE(client.waitForStatus(first, 100));
    ASSERT_TRUE(zul.waitForCalls("Install", 2));
    EXPECT_EQ(zul.mostHeld(), 1) << "one at a time";
    zul.answer("Install");
    EXPECT_TRUE(other.waitForStatus(second, 100));
}

TEST_F(TheDaemon, EndsTheUpgradeThatBecameAnInstallationAndNoOther) {
    setInstalled({"com.example.app"});
    zul.hold("Remove");
    zul.hold("Install");
    const auto removal = client.remove("com.example.app");
    ASSERT_TRUE(zul.waitForCalls("Remove", 1));
    const auto first = client.install(packageFile());
    const auto newer = buildPackage(scratch.path() / "newer", {.name = "com.example.app", .version = "2.0"});
    const auto second = client.install(newer);
    zul.setPackages({});
    EXPECT_TRUE(zul.answer("Remove"));
    ASSERT_TRUE(zul.waitForCalls("Install", 1));
    zul.emit("PackageRemoved", std::string("com.example.app"));
    setInstalled({"com.example.app"});
    EXPECT_TRUE(zul.answer("Install")); // a first installation; the reply precedes the signal
    ASSERT_TRUE(zul.waitForCalls("Install", 2));
    zul.emit("PackageInstalled", PackageManager::package("com.example.app"));
    EXPECT_TRUE(client.waitForStatus(first, 100));
    std::filesystem::create_directories(next());
    EXPECT_TRUE(zul.answer("Install")); // prepared: the application runs
    EXPECT_TRUE(waitUntil([&] { return client.statusesOf(second).size() >= 3; }));
    zul.emit("PackageRemoved", std::string("com.example.app")); // late
    EXPECT_EQ(client.errorOf("Start", "a"), "");
    EXPECT_THAT(client.statusesOf(second), ElementsAre(0, 10, 90));
    zul.emit("PackageUpgraded", PackageManager::package("com.example.app", "2.0-1"));
    EXPECT_TRUE(client.waitForStatus(second, 100));
}

TEST_F(TheDaemon, EndsNoUpgradeThatWasPreparedDuringTheCheckOfAnEarlierOne) {
    prepareUpgrade(client);
    std::filesystem::remove(next());
    zul.hold("Install");
    const auto second = client.install(packageFile());
    ASSERT_TRUE(zul.waitForCalls("Install", 2));
    const auto lists = zul.calls("GetPackageList").size();
    zul.hold("GetPackageList");
    zul.emit("PackageRemoved", std::string("com.example.app"));
    ASSERT_TRUE(zul.waitForCalls("GetPackageList", lists + 1));
    std::filesystem::create_directory(next());
    EXPECT_TRUE(zul.answer("Install"));
    EXPECT_TRUE(client.waitForStatus(second, 90));
    EXPECT_EQ(client.errorOf("Restart", "com.example.app"), "");
    zul.setPackages({});
    zul.releaseCalls();
    EXPECT_THAT(client.operations(), testing::SizeIs(2));
    zul.emit("PackageUpgraded", PackageManager::package("com.example.app"));
    EXPECT_TRUE(runtime.waitForCalls("InvokeIntent", 1));
}

TEST_F(TheDaemon, EndsUpgradesAndRestartsOfARemovedPackage) {
    const auto upgrade = prepareUpgrade(client);
    EXPECT_EQ(client.errorOf("Restart", "com.example.app"), "");
    std::filesystem::remove(next());
    zul.setPackages({});
    zul.emit("PackageRemoved", std::string("com.example.app"));
    EXPECT_TRUE(client.waitForStatus(upgrade, 101));
    EXPECT_EQ(client.received().back(), Client::ended(upgrade, Common::ErrorCode::PackageNotExist));
    EXPECT_THAT(client.operations(), IsEmpty());
    zul.emit("PackageUpgraded", PackageManager::package("com.example.app"));
    EXPECT_TRUE(waitUntil([&] { return client.packageSignals().size() == 2; }));
    EXPECT_EQ(client.errorOf("Start", "a"), "");
    EXPECT_THAT(runtime.calls("InvokeIntent"), ElementsAre("Start a"));
}

TEST_F(TheDaemon, FinishesAnUpgradeThatIsSignalledBeforeTheCallReturns) {
    setInstalled({"com.example.app"});
    zul.hold("Install");
    const auto file = packageFile();
    const auto early = [&](std::size_t count, const std::string& errorName) {
        auto operation = client.install(file);
        EXPECT_TRUE(zul.waitForCalls("Install", count) && client.waitForStatus(operation, 10));
        client.forget();
        zul.emit("PackageUpgraded", PackageManager::package("com.example.app"));
        zul.emit("PackageUpgraded", PackageManager::package("com.example.other"));
        EXPECT_TRUE(client.waitForEvents(1)) << "another package's relay does not wait";
        zul.answer("Install", errorName);
        EXPECT_TRUE(client.waitForEvents(errorName.empty() ? 4 : 3));
        return client.events();
    };
    EXPECT_THAT(early(1, {}),
                ElementsAre("upgraded com.example.other", "90", "100", "upgraded com.example.app"));
    EXPECT_THAT(early(2, "norvane.ZUL.Error.Filesystem"),
                ElementsAre("upgraded com.example.other", "101", "upgraded com.example.app"));
    zul.hold("Install", false);
    const auto third = client.install(file);
    const auto fourth = other.install(file);
    EXPECT_TRUE(client.waitForStatus(third, 90) && other.waitForStatus(fourth, 90))
        << "the signals are spent";
    zul.emit("PackageUpgraded", PackageManager::package("com.example.app"));
    EXPECT_TRUE(client.waitForStatus(third, 100) && other.waitForStatus(fourth, 100)) << "one finishes all";
}

TEST_F(TheDaemon, ContinuesWhenOtherServicesHang) {
    const auto first = beginInstallation(client);
    const auto second = client.install(packageFile());
    std::filesystem::create_directories(next("a"));
    runtime.hold("InvokeIntent");
    EXPECT_EQ(client.errorOf("Restart", "a"), "");
    zul.emit("PackageUpgraded", PackageManager::package("a"));
    ASSERT_TRUE(runtime.waitForCalls("InvokeIntent", 1));
    zul.emit("PackageRemoved", std::string("a"));
    EXPECT_TRUE(waitUntil([&] { return client.packageSignals().size() == 2; }));

    ASSERT_TRUE(client.waitForStatus(first, 10));
    const auto identified = identification.calls("IdentifyByBusName").size();
    identification.hold("IdentifyByBusName");
    zul.answer("Install");
    EXPECT_TRUE(identification.waitForCalls("IdentifyByBusName", identified + 1));
    EXPECT_TRUE(zul.waitForCalls("Install", 2));
    zul.answer("Install");
    identification.hold("IdentifyByBusName", false);
    EXPECT_TRUE(identification.answer("IdentifyByBusName"));
    EXPECT_TRUE(client.waitForStatus(second, 100));
    EXPECT_THAT(client.statusesOf(first), ElementsAre(0, 10, 100));
    EXPECT_THAT(client.statusesOf(second), ElementsAre(0, 10, 100));
}

TEST_F(TheDaemon, DeliversAStormOfSignalsThroughABusThatStalls) {
    std::vector<std::string> expected;
    const auto manager =
        sdbus::createProxy(sdbus::createSystemBusConnection(), "norvane.ZUL", "/norvane/ZUL");
    buses.session.signal(SIGSTOP);
    for (int count = 0; count < 10000; ++count) {
        expected.push_back("removed " + std::to_string(count));
        zul.emit("PackageRemoved", std::to_string(count));
        if (count % 500 == 499) {
            // What the peer's library has kept back goes out when something wakes the peer.
            std::vector<Common::PackageProperties> packages;
            manager->callMethod("GetPackageList").onInterface("norvane.ZUL").storeResultsTo(packages);
        }
    }
    buses.session.signal(SIGCONT);
    EXPECT_TRUE(waitUntil([&] { return client.packageSignals().size() == expected.size(); },
                          std::chrono::seconds(60)));
    EXPECT_EQ(client.packageSignals(), expected);
}

TEST_F(TheDaemon, ShutsDownInOrderAfterSigterm) {
    zul.hold("Install");
    const auto file = packageFile();
    const auto running = client.install(file);
    ASSERT_TRUE(zul.waitForCalls("Install", 1));
    const std::vector queued{client.install(file), client.install(file), client.install(file)};
    EXPECT_TRUE(client.waitForStatus(running, 10));
    daemon->signal(SIGTERM);
    const std::string refusal = "The service is shutting down";
    ASSERT_TRUE(waitUntil([&] { return other.errorOf("Start", "a") == refusal; }));
    EXPECT_EQ(other.errorOf("Install", file), refusal);
    EXPECT_EQ(client.operations().size(), 4) << "reads are answered";
    zul.answer("Install");
    EXPECT_EQ(daemon->wait(), 0) << daemon->output();
    EXPECT_TRUE(client.waitForStatus(queued.back(), 101));
    auto received = client.received();
    received.erase(received.begin(), received.end() - 4);
    EXPECT_EQ(received.at(0), Client::ended(running));
    for (std::size_t index = 0; index < 3; ++index) {
        EXPECT_EQ(received.at(index + 1), Client::ended(queued[index], Common::ErrorCode::Internal));
    }
}

TEST_F(TheDaemon, EndsWithTwoLogLinesEvenIfClientsWait) {
    zul.hold("Install");
    const auto file = packageFile();
    std::vector<std::jthread> threads(8);
    std::atomic<int> calls = 0;
    for (auto& thread : threads) {
        thread = std::jthread([&] {
            try {
                Client caller;
                for (;;) {
                    caller.install(file);
                    caller.operations();
                    ++calls;
                }
            } catch (const sdbus::Error&) {
                // The bus is gone.
            }
        });
    }
    EXPECT_TRUE(waitUntil([&] { return calls > 50; }));
    EXPECT_TRUE(zul.waitForCalls("Install", 1));
    buses.session.stop();
    expectedStatus = 1;
    EXPECT_EQ(daemon->wait(), expectedStatus);
    EXPECT_EQ(zul.calls("Install").size(), 1) << "the queue ends with the daemon";
    threads.clear();
    const std::regex firstInstallation("ERROR: couldn't find package: com.example.app\n");
    EXPECT_THAT(std::regex_replace(daemon->output(), firstInstallation, ""),
                testing::MatchesRegex("ERROR: couldn't register service: norvane.Vendara\nERROR: [^\n]*\n"));
}

TEST_F(TheDaemon, DoesNotExecuteRequestsThatItRefusedAsTooLate) {
    runtime.hold("InvokeIntent");
    runtime.hold("Terminate");
    std::array<std::promise<std::string>, 21> errors;
    const auto connection = sdbus::createSessionBusConnection();
    const auto service = sdbus::createProxy(*connection, "norvane.Vendara", "/norvane/Vendara");
    for (auto& error : errors) { // in one burst: when the first one is given up, so are the others
        service->callMethodAsync(&error == errors.data() ? "Start" : "Restart")
            .onInterface("norvane.Vendara")
            .withTimeout(std::chrono::minutes(1))
            .withArguments(std::string("late"))
            .uponReplyInvoke([&error](const sdbus::Error* refusal) {
                error.set_value(refusal != nullptr ? refusal->getMessage() : "");
            });
    }
    connection->enterEventLoopAsync();
    for (auto& error : errors) {
        EXPECT_EQ(error.get_future().get(), &error == errors.data() ? "Failed to start application"
                                                                    : "Failed to terminate application");
    }
    EXPECT_LT(runtime.calls("Terminate").size(), 20);
}

TEST_F(TheDaemon, ContinuesWithoutTheSystemBus) {
    const auto running = beginInstallation(client);
    buses.system.stop();
    EXPECT_TRUE(client.waitForStatus(running, 101));
    EXPECT_EQ(client.received().back().errorCode, Common::ErrorCode::Internal);
    EXPECT_EQ(client.errorOf("GetAllProperties"), "Failed to retrieve list of installed packages");
    EXPECT_EQ(client.errorOf("Remove", "a"), "Failed to retrieve list of installed packages");
    EXPECT_TRUE(client.waitForStatus(client.install(packageFile("b")), 101));
    EXPECT_EQ(client.received().back().errorCode, Common::ErrorCode::Internal);
    EXPECT_EQ(client.errorOf("Start", "a"), "");
}

} // namespace

} // namespace Testbed
