#include "tests/daemon/DaemonTest.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace Testbed {

namespace {

class ARequest : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        client.emplace();
    }
    std::optional<Client> client;
};

TEST_F(ARequest, InstallsAndRemovesARealPackage) {
    const auto file = packageFile();
    const auto installation = client->install(file);
    EXPECT_THAT(client->statusesOf(installation), testing::Contains(0)) << "announced before the reply";
    EXPECT_EQ(installation, (Client::Operation{installation.id, "com.example.app"}));
    EXPECT_TRUE(client->waitForStatus(installation, 100));
    EXPECT_TRUE(logged("ERROR: couldn't find package: com.example.app"));
    setInstalled({"com.example.other", "com.example.app"});
    zul.emit("PackageInstalled", PackageManager::package("com.example.app"));

    const auto upgrade = client->install(file);
    EXPECT_EQ(upgrade.type, OperationType::Upgrade);
    EXPECT_TRUE(client->waitForStatus(upgrade, 90));
    EXPECT_EQ(client->operations(), std::vector{client->received().back()});
    zul.emit("PackageUpgraded", PackageManager::package("com.example.other"));
    zul.emit("PackageUpgraded", Common::PackageProperties{{"general.version", "2"}});
    zul.emit("PackageUpgraded", PackageManager::package("com.example.app"));
    EXPECT_TRUE(client->waitForStatus(upgrade, 100));
    EXPECT_TRUE(logged("WARN: couldn't retrieve package id from upgraded package"));

    const auto removal = client->remove("com.example.app");
    EXPECT_EQ(removal.type, OperationType::Remove);
    EXPECT_TRUE(client->waitForStatus(removal, 100));
    zul.emit("PackageRemoved", std::string("com.example.app"));
    EXPECT_TRUE(waitUntil([&] { return client->packageSignals().size() == 4; }));
    EXPECT_THAT(client->packageSignals(),
                ElementsAre("installed com.example.app", "upgraded com.example.other",
                            "upgraded com.example.app", "removed com.example.app"));
    EXPECT_THAT(client->statusesOf(installation), ElementsAre(0, 10, 100));
    EXPECT_THAT(client->statusesOf(upgrade), ElementsAre(0, 10, 90, 100));
    EXPECT_THAT(client->statusesOf(removal), ElementsAre(0, 10, 100));
    EXPECT_THAT(zul.calls("Install"), ElementsAre(file, file));
    EXPECT_THAT(zul.calls("Remove"), ElementsAre("com.example.app"));
    EXPECT_THAT(client->operations(), IsEmpty());
    EXPECT_THAT(client->operations("CompletedOperations"), IsEmpty());
}

TEST_F(ARequest, ReturnsThePlatformAndThePackages) {
    auto incomplete = PackageManager::package("com.example.incomplete");
    incomplete.erase("certificate.id");
    zul.setPackages({PackageManager::package("b", "2-1"), incomplete, PackageManager::package("a")});
    auto properties = client->call<Client::Properties>("GetAllProperties");
    EXPECT_EQ(properties.size(), 5);
    EXPECT_EQ(properties["Architecture"].get<std::string>(), "riscv64");
    EXPECT_EQ(properties["QuenraVersion"].get<std::string>(), "4.2");
    const auto packages = properties["Packages"].get<std::vector<Common::PackageRecord>>();
    ASSERT_EQ(packages.size(), 2);
    EXPECT_EQ(packages[0], (Common::PackageRecord{"b", "2-1", "group", "certificate"}));
    EXPECT_EQ(packages[1].id, "a");
    EXPECT_TRUE(logged("WARN: couldn't retrieve required properties from ZUL package"));

    zul.emit("PackageInstalled", incomplete);
    zul.emit("PackageRemoved", std::uint32_t{7});
    zul.emit("PackageRemoved", std::string("last"));
    EXPECT_TRUE(waitUntil([&] { return !client->packageSignals().empty(); }));
    EXPECT_THAT(client->packageSignals(), ElementsAre("removed last"));
    EXPECT_TRUE(logged("ERROR: couldn't retrieve required properties from ZUL package"));
    EXPECT_TRUE(logged("WARN: couldn't retrieve package id from signal: PackageRemoved"));
}

TEST_F(ARequest, ThatFailsIsRefusedWithTheReason) {
    writeFile(scratch.path() / "text.rpm", "no package");
    const std::string noFacts = "Failed to retrieve the platform architecture";
    EXPECT_EQ(client->errorOf("Install", (scratch.path() / "text.rpm").string()),
              "Failed to retrieve id from the rpm package");
    EXPECT_EQ(client->errorOf("Install", std::string(100000, 'x')),
              "Failed to retrieve id from the rpm package");
    writeFile(etc / "os-release", "VERSION_ID=\xff\n");
    EXPECT_EQ(client->errorOf("GetAllProperties"), noFacts);
    writeFile(etc / "os-release", "NAME=Test\n");
    EXPECT_EQ(client->errorOf("GetAllProperties"), noFacts);
    EXPECT_EQ(client->errorOf("Remove", "com.example.App"), "The package does not exist");
    EXPECT_EQ(client->errorOf("Restart", std::string(300, 'x')), "Failed to restart application");

    zul.refuse("GetPackageList", "norvane.ZUL.Error.Internal");
    EXPECT_EQ(client->errorOf("Remove", "id"), "Failed to retrieve list of installed packages");
    EXPECT_TRUE(
        logged("ERROR: couldn't retrieve list of installed packages\nERROR: refused by the test \u00c4"));
    zul.answerWrongType("GetPackageList");
    EXPECT_EQ(client->errorOf("Remove", "id"), "Failed to retrieve list of installed packages");
    zul.answerWrongType("GetPackageList", false);
    identification.answerWrongType("IdentifyByBusName");
    EXPECT_EQ(client->errorOf("Install", "/x"), "Couldn't determinate operation initiator");
    identification.answerWrongType("IdentifyByBusName", false);
    identification.set(client->busName(), "");
    EXPECT_EQ(client->errorOf("Remove", "id"), "Failed to retrieve list of installed packages");
    for (const auto* method : {"Install", "GetAllProperties"}) {
        EXPECT_EQ(method == std::string("Install") ? client->errorOf(method, "/x") : client->errorOf(method),
                  "Couldn't determinate operation initiator");
    }
    EXPECT_TRUE(logged("ERROR: couldn't identify the sender: " + client->busName()));
    EXPECT_THAT(client->received(), IsEmpty());
}

TEST_F(ARequest, FailsLaterWithThePackageManagersCode) {
    zul.refuse("GetPackageList", "norvane.ZUL.Error.Internal");
    zul.refuse("Install", "norvane.ZUL.Error.DowngradeAttempt");
    const auto operation = client->install(packageFile());
    EXPECT_EQ(operation.type, OperationType::Install) << "without a list it counts as an installation";
    EXPECT_TRUE(client->waitForStatus(operation, 101));
    EXPECT_EQ(client->received().back().errorCode, Common::ErrorCode::DowngradeAttempt);
    EXPECT_TRUE(logged("ERROR: refused by the test \u00c4"));
    zul.refuse("GetPackageList", {});
    EXPECT_EQ(client->operations(), std::vector{client->received().back()})
        << "listed until the next one runs";
}

TEST_F(ARequest, IsReportedOnlyToItsInitiator) {
    Client other;
    const auto operation = client->install(packageFile());
    EXPECT_TRUE(client->waitForStatus(operation, 100));
    zul.emit("PackageRemoved", std::string("end"));
    EXPECT_TRUE(waitUntil([&] { return !other.packageSignals().empty(); }));
    EXPECT_THAT(other.received(), IsEmpty());
}

TEST_F(ARequest, OfAnInitiatorThatLeftIsReportedOnceToItsApplication) {
    identification.set(client->busName(), "shop");
    const auto operation = beginInstallation(*client);
    const auto busName = client->busName();
    client.reset();
    identification.set(busName, "");
    client.emplace();
    identification.set(client->busName(), "shop");
    EXPECT_EQ(client->operations().size(), 1);
    zul.answer("Install");
    EXPECT_TRUE(logged("WARN: couldn't send OperationStatusChanged signal\nWARN: operation initiator is not "
                       "dbus available"));
    setInstalled({});
    zul.refuse("GetPackageList", "norvane.ZUL.Error.Internal");
    EXPECT_EQ(client->errorOf("GetAllProperties"), "Failed to retrieve list of installed packages");
    zul.refuse("GetPackageList", {});
    std::vector<Client::Operation> completed;
    EXPECT_TRUE(waitUntil([&] { return !(completed = client->operations("CompletedOperations")).empty(); }))
        << "and a failed request loses nothing";
    EXPECT_THAT(completed, ElementsAre(Client::ended(operation)));
    EXPECT_THAT(client->operations("CompletedOperations"), IsEmpty());
    EXPECT_THAT(client->received(), IsEmpty());
}

TEST_F(ARequest, StartsAndRestartsApplications) {
    EXPECT_EQ(client->errorOf("Start", "a"), "");
    EXPECT_EQ(client->errorOf("Restart", "b"), "");
    std::filesystem::create_directories(next("c"));
    EXPECT_EQ(client->errorOf("Restart", "c"), "");
    EXPECT_THAT(runtime.calls("Terminate"), ElementsAre("b", "c"));
    for (const auto* id : {"c", "x", "b", "b"}) {
        runtime.emit("Terminated", std::string(id));
    }
    runtime.emit("Terminated", 7);
    EXPECT_TRUE(logged("WARN: couldn't retrieve package id from signal: Terminated"));
    ASSERT_TRUE(runtime.waitForCalls("InvokeIntent", 2));
    EXPECT_THAT(runtime.calls("InvokeIntent"), ElementsAre("Start a", "Start b"));
    zul.emit("PackageUpgraded", PackageManager::package("c"));
    ASSERT_TRUE(runtime.waitForCalls("InvokeIntent", 3));

    runtime.refuse("InvokeIntent", "org.freedesktop.DBus.Error.Disconnected"); // a name that the bus uses
    runtime.refuse("Terminate", "norvane.RuntimeManager.Error");
    EXPECT_EQ(client->errorOf("Start", "d"), "Failed to start application");
    EXPECT_EQ(client->errorOf("Restart", "d"), "Failed to terminate application");
    runtime.refuse("InvokeIntent", {});
    runtime.emit("Terminated", std::string("d"));
    ASSERT_TRUE(runtime.waitForCalls("InvokeIntent", 5));
    EXPECT_THAT(runtime.calls("InvokeIntent"),
                ElementsAre("Start a", "Start b", "Start c", "Start d", "Start d"));
}

} // namespace

} // namespace Testbed
