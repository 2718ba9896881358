#include "tests/daemon/DaemonTest.h"

#include <future>

using testing::ElementsAre;
using testing::IsEmpty;

namespace Testbed {

namespace {

// One caller waits for a peer that does not answer; all others get answers.
class AHangingPeer : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        if (!IsSkipped()) {
            file = packageFile();
            setInstalled({"com.example.old"});
        }
    }

    // The next call of the method waits, those after it are answered.
    template<typename Request>
    auto hold(ScriptedPeer& peer, const std::string& method, Request request) {
        const auto before = peer.calls(method).size();
        peer.hold(method);
        auto held = std::async(std::launch::async, request);
        EXPECT_TRUE(peer.waitForCalls(method, before + 1)) << method;
        peer.hold(method, false);
        return held;
    }

    void expectAllAnswered(Client& asking) {
        EXPECT_EQ(asking.errorOf("Start", "a") + asking.errorOf("Restart", "b"), "");
        const auto installation = asking.install(file);
        EXPECT_TRUE(asking.waitForStatus(installation, 100));
        const auto removal = asking.remove("com.example.old");
        EXPECT_TRUE(asking.waitForStatus(removal, 100));
        EXPECT_THAT(asking.operations(), IsEmpty());
    }

    std::string file;
    Client client;
    Client other;
};

TEST_F(AHangingPeer, DelaysNoOtherCaller) {
    auto identified = hold(identification, "IdentifyByBusName", [&] { return client.install(file); });
    expectAllAnswered(other);
    EXPECT_TRUE(identification.answer("IdentifyByBusName"));
    EXPECT_TRUE(client.waitForStatus(identified.get(), 100));

    auto listed = hold(zul, "GetPackageList", [&] { return client.install(file); });
    expectAllAnswered(other);
    EXPECT_TRUE(zul.answer("GetPackageList"));
    EXPECT_TRUE(client.waitForStatus(listed.get(), 100));

    auto read = hold(zul, "GetPackageList", [&] { return client.operations(); });
    expectAllAnswered(other);
    const auto before = other.packageSignals().size();
    zul.emit("PackageInstalled", PackageManager::package("a"));
    EXPECT_TRUE(waitUntil([&] { return other.packageSignals().size() > before; }));
    EXPECT_TRUE(zul.answer("GetPackageList"));
    EXPECT_THAT(read.get(), IsEmpty());

    for (const auto* method : {"Start", "Restart"}) {
        const auto* call = method == std::string("Start") ? "InvokeIntent" : "Terminate";
        auto launched = hold(runtime, call, [&] { return client.errorOf(method, "c"); });
        expectAllAnswered(other);
        EXPECT_TRUE(runtime.answer(call));
        EXPECT_EQ(launched.get(), "");
    }
}

TEST_F(AHangingPeer, DoesNotReorderACallersRequests) {
    auto first = hold(runtime, "InvokeIntent", [&] { return client.errorOf("Start", "first"); });
    auto second = std::async(std::launch::async, [&] { return client.errorOf("Start", "second"); });
    EXPECT_EQ(other.errorOf("Start", "other"), "");
    EXPECT_TRUE(runtime.answer("InvokeIntent"));
    EXPECT_EQ(first.get() + second.get(), "");
    EXPECT_THAT(runtime.calls("InvokeIntent"), ElementsAre("Start first", "Start other", "Start second"));
}

TEST_F(AHangingPeer, DelaysNoStatusesOfOthersAndAnEndStaysListedUntilReported) {
    identification.set(client.busName(), "shop");
    identification.set(other.busName(), "shop");
    const auto operation = beginInstallation(client);
    ASSERT_TRUE(client.waitForStatus(operation, 10));
    hold(identification, "IdentifyByBusName", [&] { return zul.answer("Install"); }).get();
    EXPECT_THAT(other.operations(), ElementsAre(Client::ended(operation))) << "neither reported nor stored";
    zul.hold("Install", false);
    EXPECT_TRUE(other.waitForStatus(other.install(file), 100));
    EXPECT_THAT(client.statusesOf(operation), ElementsAre(0, 10));
    EXPECT_TRUE(identification.answer("IdentifyByBusName"));
    EXPECT_TRUE(client.waitForStatus(operation, 100));
    EXPECT_TRUE(waitUntil([&] { return other.operations().empty(); }));
    EXPECT_THAT(client.operations("CompletedOperations"), IsEmpty());
}

// 24 s: every request is refused with its own sentence before the caller's bus library gives up.
TEST_F(AHangingPeer, CausesARefusalWithinTheTimeLimit) {
    const auto refused = [](const std::string& method, auto... argument) {
        return std::async(std::launch::async, [=] {
            Client caller;
            return caller.errorOf(method, argument...);
        });
    };
    runtime.hold("InvokeIntent");
    runtime.hold("Terminate");
    auto start = refused("Start", "a");
    auto restart = refused("Restart", "a");
    zul.hold("GetPackageList");
    auto read = refused("GetAllProperties");
    auto removal = refused("Remove", "a");
    ASSERT_TRUE(zul.waitForCalls("GetPackageList", 2));
    auto installed = std::async(std::launch::async, [this] { return Client().install(file).type; });
    ASSERT_TRUE(zul.waitForCalls("GetPackageList", 3) && identification.waitForCalls("IdentifyByBusName", 2));
    identification.hold("IdentifyByBusName");
    std::vector<std::future<std::string>> unidentified;
    unidentified.push_back(refused("Install", file));
    unidentified.push_back(refused("GetAllProperties"));
    unidentified.push_back(std::async(std::launch::async, [&] { return client.errorOf("Install", file); }));
    unidentified.push_back(
        std::async(std::launch::async, [&] { return client.errorOf("GetAllProperties"); }));
    EXPECT_EQ(start.get(), "Failed to start application");
    EXPECT_EQ(restart.get(), "Failed to terminate application");
    EXPECT_EQ(read.get(), "Failed to retrieve list of installed packages");
    EXPECT_EQ(removal.get(), "Failed to retrieve list of installed packages");
    for (auto& error : unidentified) {
        EXPECT_EQ(error.get(), "Couldn't determinate operation initiator");
    }
    for (auto* peer : std::initializer_list<ScriptedPeer*>{&zul, &runtime, &identification}) {
        peer->releaseCalls();
    }
    EXPECT_EQ(installed.get(), OperationType::Install) << "without a list it counts as an installation";
    expectAllAnswered(client);
}

} // namespace

} // namespace Testbed
