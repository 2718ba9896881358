#include "core/ZulProxy.h"

#include "common/Error.h"
#include "common/Names.h"
#include "testbed/BusPeer.h"
#include "testbed/LogCapture.h"
#include "testbed/PrivateBus.h"
#include "testbed/WaitUntil.h"

#include <gmock/gmock.h>

namespace {

namespace Peer = Common::Names::Zul;
using Common::PackageProperties;
using testing::ElementsAre;

// A package manager that refuses what it is told to refuse and can be made to send any signal.
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

TEST_F(ThePackageManagerClient, CarriesCallsAndTurnsRefusalsIntoCodes) {
    Core::ZulProxy client;
    client.install("/tmp/a.rpm");
    client.remove("com.example.app");
    EXPECT_EQ(calls_, "/tmp/a.rpm;com.example.app;");
    EXPECT_THAT(client.getPackageList(), ElementsAre());
    list_ = {{{"general.id", "b"}}, {{"general.id", "a"}, {"x", ""}}};
    EXPECT_EQ(client.getPackageList(), list_);
    EXPECT_EQ(failureOf([&] { client.install("norvane.ZUL.Error.BadPackageSignature"); }),
              std::pair(7, std::string("refused for a reason \xc3\x84")));
    EXPECT_EQ(failureOf([&] { client.remove("norvane.ZUL.Error.Internal"); }).first, 2);
    EXPECT_EQ(failureOf([&] { client.remove("org.freedesktop.DBus.Error.AccessDenied"); }).first, 2);
}

TEST_F(ThePackageManagerClient, HandsSignalsOnInOrderAndDropsMalformedOnes) {
    std::vector<std::string> seen;
    std::promise<void> last;
    {
        Core::ZulProxy client;
        client.addPackageInstalledHandler(
            [&](const PackageProperties& p) { seen.push_back("i1 " + p.at("general.id")); });
        client.addPackageInstalledHandler(
            [&](const PackageProperties& p) { seen.push_back("i2 " + p.at("general.id")); });
        client.addPackageUpgradedHandler(
            [&](const PackageProperties& p) { seen.push_back("u " + p.at("general.id")); });
        client.addPackageRemovedHandler([&](const std::string& id) {
            seen.push_back("r " + id);
            last.set_value();
        });
        client.start();
        send(Peer::packageInstalled, PackageProperties{{"general.id", "a"}});
        send(Peer::packageInstalled, std::string("no map"));
        send(Peer::packageUpgraded,
             std::map<std::string, sdbus::Variant>{{"general.id", sdbus::Variant("a")}});
        send(Peer::packageUpgraded);
        send(Peer::packageRemoved, std::int32_t{7});
        send(Peer::packageUpgraded, PackageProperties{{"general.id", "b"}});
        send(Peer::packageRemoved, std::string("c"));
        Testbed::waitFor(last);
    }
    EXPECT_THAT(seen, ElementsAre("i1 a", "i2 a", "u b", "r c"));
    const auto lines = log_.lines();
    ASSERT_EQ(lines.size(), 8) << log_.text();
    EXPECT_EQ(lines[0], "WARN: couldn't retrieve package from signal: PackageInstalled");
    EXPECT_EQ(lines[2], "WARN: couldn't retrieve package from signal: PackageUpgraded");
    EXPECT_EQ(lines[6], "WARN: couldn't retrieve package id from signal: PackageRemoved");
}

TEST_F(ThePackageManagerClient, GetsRepliesWhileAHandlerWaits) {
    std::promise<std::size_t> answered;
    Core::ZulProxy client;
    client.addPackageRemovedHandler(
        [&](const std::string&) { answered.set_value(client.getPackageList().size()); });
    client.start();
    send(Peer::packageRemoved, std::string("c"));
    EXPECT_EQ(Testbed::waitFor(answered), 0);
}

TEST_F(ThePackageManagerClient, FailsWithTheInternalCodeOnceTheBusIsGone) {
    Core::ZulProxy client;
    client.start();
    buses_.system.stop();
    EXPECT_EQ(failureOf([&] { client.install("/tmp/a.rpm"); }).first, 2);
    EXPECT_EQ(failureOf([&] { static_cast<void>(client.getPackageList()); }).first, 2);
}

TEST(ThePackageManagerClientWithoutMatchRules, MakesCallsAndReceivesNoSignals) {
    const Testbed::LogCapture log;
    const Testbed::PrivateBus bus("<limit name='max_match_rules_per_connection'>0</limit>");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    Core::ZulProxy client;
    client.start();
    ASSERT_EQ(log.lines().size(), 2) << log.text();
    EXPECT_EQ(log.lines()[0], "ERROR: couldn't subscribe to ZUL signal");
    EXPECT_THROW(client.remove("x"), Common::Error); // answered by the bus: there is no such service
}

} // namespace
