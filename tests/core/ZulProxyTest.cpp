#include "core/ZulProxy.h"

#include "common/Error.h"
#include "common/Names.h"
#include "testbed/BusPeer.h"
#include "testbed/LogCapture.h"
#include "testbed/LoopDriver.h"
#include "testbed/PrivateBus.h"
#include "testbed/Process.h"

#include <gmock/gmock.h>

namespace {

namespace Peer = Common::Names::Zul;
using Common::PackageProperties;
using testing::ElementsAre;

// A package manager that refuses calls on request and sends any signal.
class ThePackageManagerClient : public testing::Test {
protected:
    ThePackageManagerClient()
        : peer_(sdbus::createSystemBusConnection(Peer::service), Peer::objectPath) {
        auto& object = peer_.object();
        object.registerMethod(Peer::interface, Peer::install, "sa{sv}", "", [this](sdbus::MethodCall call) {
            std::string path;
            std::map<std::string, sdbus::Variant> options;
            call >> path >> options;
            answer(call, path + (options.empty() ? "" : " with options"));
        });
        object.registerMethod(Peer::interface, Peer::remove, "s", "", [this](sdbus::MethodCall call) {
            std::string id;
            call >> id;
            answer(call, id);
        });
        object.registerMethod(Peer::interface, Peer::getPackageList, "", "aa{ss}",
                              [this](const sdbus::MethodCall& call) {
                                  auto reply = call.createReply();
                                  reply << list_;
                                  reply.send();
                              });
        peer_.start();
    }

    template<typename... Arguments>
    void send(const std::string& signal, const Arguments&... arguments) {
        peer_.send(Peer::interface, signal, arguments...);
    }

    static std::pair<int, std::string> failureOf(const std::function<void()>& call) {
        try {
            call();
            return {-1, ""};
        } catch (const Common::Error& error) {
            return {static_cast<int>(error.code()), error.what()};
        }
    }

    Testbed::LogCapture log_;
    Testbed::PrivateBuses buses_;
    Testbed::LoopDriver driver_;
    std::vector<PackageProperties> list_;
    std::string calls_; // of answered calls

private:
    void answer(sdbus::MethodCall& call, const std::string& argument) {
        if (argument.starts_with("org.") || argument.starts_with("norvane.")) {
            throw sdbus::Error(argument, "Refused FOR a Reason \xc3\x84");
        }
        calls_ += argument + ";";
        call.createReply().send();
    }

    Testbed::BusPeer peer_;
};

TEST_F(ThePackageManagerClient, KeepsItsConnectionFromChildren) {
    EXPECT_THAT(Testbed::run({"ls", "-l", "/proc/self/fd"}).output,
                testing::Not(testing::HasSubstr("socket:")));
}

TEST_F(ThePackageManagerClient, CarriesCallsAndTurnsRefusalsIntoCodes) {
    Core::ZulProxy client(driver_.loop);
    const auto list = [&] { return *driver_.await(client.getPackageList(Testbed::LoopDriver::soon())); };
    driver_.await(client.install("/tmp/a.rpm"));
    driver_.await(client.remove("com.example.app"));
    EXPECT_EQ(calls_, "/tmp/a.rpm;com.example.app;");
    EXPECT_THAT(list(), ElementsAre());
    list_ = {{{"general.id", "b"}}, {{"general.id", "a"}, {"x", ""}}};
    EXPECT_EQ(list(), list_);
    EXPECT_EQ(failureOf([&] { driver_.await(client.install("norvane.ZUL.Error.BadPackageSignature")); }),
              std::pair(7, std::string("refused for a reason \xc3\x84")));
    EXPECT_EQ(failureOf([&] { driver_.await(client.remove("norvane.ZUL.Error.Internal")); }).first, 2);
    EXPECT_EQ(
        failureOf([&] { driver_.await(client.remove("org.freedesktop.DBus.Error.AccessDenied")); }).first, 2);
}

TEST_F(ThePackageManagerClient, HandsSignalsOnInOrderAndDropsMalformedOnes) {
    std::vector<std::string> seen;
    Core::ZulProxy client(driver_.loop);
    client.addPackageInstalledHandler(
        [&](const PackageProperties& p) { seen.push_back("i1 " + p.at("general.id")); });
    client.addPackageInstalledHandler(
        [&](const PackageProperties& p) { seen.push_back("i2 " + p.at("general.id")); });
    client.addPackageUpgradedHandler(
        [&](const PackageProperties& p) { seen.push_back("u " + p.at("general.id")); });
    client.addPackageRemovedHandler([&](const std::string& id) { seen.push_back("r " + id); });
    send(Peer::packageInstalled, PackageProperties{{"general.id", "a"}});
    send(Peer::packageInstalled, std::string("no map"));
    send(Peer::packageUpgraded, std::map<std::string, sdbus::Variant>{{"general.id", sdbus::Variant("a")}});
    send(Peer::packageUpgraded);
    send(Peer::packageRemoved, std::int32_t{7});
    send(Peer::packageUpgraded, PackageProperties{{"general.id", "b"}});
    send(Peer::packageRemoved, std::string("c"));
    EXPECT_TRUE(driver_.runUntil([&] { return seen.size() == 4; }));
    EXPECT_THAT(seen, ElementsAre("i1 a", "i2 a", "u b", "r c"));
    const auto lines = log_.lines();
    ASSERT_EQ(lines.size(), 8) << log_.text();
    EXPECT_EQ(lines[0], "WARN: couldn't retrieve package from signal: PackageInstalled");
    EXPECT_EQ(lines[2], "WARN: couldn't retrieve package from signal: PackageUpgraded");
    EXPECT_EQ(lines[6], "WARN: couldn't retrieve package id from signal: PackageRemoved");
}

TEST_F(ThePackageManagerClient, FailsWithTheInternalCodeOnceTheBusIsGone) {
    Core::ZulProxy client(driver_.loop);
    buses_.system.stop();
    EXPECT_EQ(failureOf([&] { driver_.await(client.install("/tmp/a.rpm")); }).first, 2);
    EXPECT_EQ(failureOf([&] { driver_.await(client.getPackageList(Testbed::LoopDriver::soon())); }).first, 2);
    EXPECT_THAT(log_.lines(),
                ElementsAre(testing::StartsWith("ERROR: lost the connection to norvane.ZUL: ")));
}

TEST(ThePackageManagerClientWithoutMatchRules, MakesCallsAndReceivesNoSignals) {
    const Testbed::LogCapture log;
    const Testbed::PrivateBuses others;
    const Testbed::PrivateBus bus("<limit name='max_match_rules_per_connection'>0</limit>");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    Testbed::LoopDriver driver;
    Core::ZulProxy client(driver.loop);
    ASSERT_EQ(log.lines().size(), 2) << log.text();
    EXPECT_EQ(log.lines()[0], "ERROR: couldn't subscribe to ZUL signal");
    EXPECT_THROW(driver.await(client.remove("x")),
                 Common::Error); // answered by the bus: there is no such service
}

// The bus disconnects who sends it a message that is too long.
TEST(ThePackageManagerClientThatTheBusDisconnects, ConnectsAnewAndReceivesSignalsAgain) {
    const Testbed::LogCapture log;
    const Testbed::PrivateBuses others;
    const Testbed::PrivateBus bus("<limit name='max_message_size'>2000</limit>");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    Testbed::BusPeer peer(sdbus::createSystemBusConnection(Peer::service), Peer::objectPath);
    peer.start();
    Testbed::LoopDriver driver;
    Core::ZulProxy client(driver.loop);
    std::vector<std::string> removed;
    int appeared = 0;
    client.addPackageRemovedHandler([&](const std::string& id) { removed.push_back(id); });
    client.setAppearedHandler([&] { ++appeared; });
    EXPECT_THROW(driver.await(client.install(std::string(4000, 'x'))), Common::Error);
    EXPECT_TRUE(driver.runUntil([&] { return appeared == 1; }));
    EXPECT_THROW(driver.await(client.remove("x")), Common::Error); // by the peer, which has no such method
    peer.send(Peer::interface, Peer::packageRemoved, std::string("a"));
    EXPECT_TRUE(driver.runUntil([&] { return !removed.empty(); }));
    EXPECT_THAT(log.lines(), ElementsAre(testing::StartsWith("ERROR: lost the connection to norvane.ZUL: "),
                                         "WARN: made the connection to norvane.ZUL anew"));
}

} // namespace
