#include "testbed/Soak.h"
#include "tests/daemon/DaemonTest.h"

#include <atomic>
#include <csignal>
#include <thread>

namespace Testbed {

namespace {

using Operation = Client::Operation;
constexpr int requestsPerClient = 40;

// Several clients that ask for all kinds of operations while packages, applications and clients come and go.
class UnderStress : public DaemonTest {
protected:
    // One client's work. The statuses that it receives must agree with what it reads.
    void request(std::size_t number, const std::string& file) {
        Client client;
        const auto path = scratch.path() / ("client-" + std::to_string(number) + "-");
        std::vector<Operation> asked;
        std::vector<std::string> paths;
        for (int count = 0; count < requestsPerClient; ++count) {
            if (count % 4 == 3) {
                asked.push_back(client.remove("com.example.old"));
            } else {
                paths.push_back(path.string() + std::to_string(count));
                std::filesystem::create_hard_link(file, paths.back());
                asked.push_back(client.install(paths.back()));
            }
            ASSERT_THAT(client.statusesOf(asked.back()), testing::Contains(0)) << "before the reply";
            EXPECT_EQ(client.errorOf("Restart", "com.example.app"), "");
            checkRead(client, asked);
        }
        for (const auto& operation : asked) {
            ASSERT_TRUE(waitUntil([&] { return client.statusesOf(operation).back() >= 100; }, limit));
            const std::vector failed{0, 10, 101};
            const auto succeeded = operation.type == OperationType::Upgrade ? std::vector{0, 10, 90, 100}
                                                                            : std::vector{0, 10, 100};
            EXPECT_THAT(client.statusesOf(operation), testing::AnyOf(succeeded, failed));
        }
        std::vector<std::string> installed;
        for (const auto& call : zul.calls("Install")) {
            if (call.find(path.string()) == 0) {
                installed.push_back(call);
            }
        }
        EXPECT_EQ(installed, paths) << "in the order of the requests";
    }

    static void checkRead(Client& client, const std::vector<Operation>& asked) {
        std::map<std::string, int> before;
        for (const auto& operation : asked) {
            before[operation.id] = client.statusesOf(operation).back();
        }
        std::set<std::string> listed;
        for (const auto& operation : client.operations()) {
            EXPECT_TRUE(listed.insert(operation.id).second) << "listed twice";
            EXPECT_GE(static_cast<int>(operation.status), before[operation.id]) << "read after its signal";
        }
        for (const auto& operation : asked) {
            if (client.statusesOf(operation).back() < 100 && !listed.contains(operation.id)) {
                // Finished while the list was read, and its signal is on the way; else it got lost.
                EXPECT_TRUE(waitUntil([&] { return client.statusesOf(operation).back() >= 100; }, limit));
            }
        }
    }

    // Answers installations, late or with an error now and then, and reports upgrades before and after.
    void manage() {
        for (int count = 0; !done; ++count) {
            zul.emit("PackageUpgraded", PackageManager::package("com.example.app"));
            zul.emit("PackageInstalled", PackageManager::package("com.example.other"));
            zul.emit("PackageRemoved", std::string("com.example.other"));
            runtime.emit("Terminated", std::string("com.example.app"));
            setInstalled({"com.example.old", count % 2 == 0 ? "com.example.app" : "com.example.none"});
            zul.answer("Install", count % 7 == 0 ? "norvane.ZUL.Error.BadPackage" : "");
            zul.answer("Remove");
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    void comeAndGo(const std::string& file) {
        while (!done) {
            Client client;
            identification.set(client.busName(), "com.example.visitor");
            client.install(file);
            client.operations("CompletedOperations");
            identification.set(client.busName(), "");
        }
    }

    static constexpr std::chrono::seconds limit{120};
    std::atomic<bool> done = false;
};

TEST_F(UnderStress, TheDaemonLosesNoStatusAndNoRequest) {
    const auto file = packageFile();
    setInstalled({"com.example.old"});
    zul.hold("Install");
    zul.hold("Remove");
    std::vector<std::jthread> background;
    background.emplace_back([&] { manage(); });
    background.emplace_back([&] { comeAndGo(file); });
    std::vector<std::jthread> clients;
    for (std::size_t number = 0; number < 3; ++number) {
        clients.emplace_back([&, number] { request(number, file); });
    }
    clients.clear();
    done = true;
    background.clear();
    EXPECT_EQ(zul.mostHeld(), 1) << "one operation at a time";
}

TEST(UnderASoak, TheDaemonAccountsForEveryOperation) {
    const ScratchDirectory scratch;
    const PrivateBuses buses;
    const auto package = buildPackage(scratch.path(), {});
    Process daemon({VENDARA_DAEMON}, {.environment = {{"HOME", scratch.path()}}});
    ASSERT_TRUE(waitForService()) << daemon.output();
    EXPECT_EQ(soak({}, package), "") << daemon.output().substr(0, 3000);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0) << daemon.output();
}

} // namespace

} // namespace Testbed
