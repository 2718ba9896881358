#include "core/ZulProxy.h"

#include "common/Error.h"
#include "common/Names.h"
#include "testbed/LogCapture.h"
#include "testbed/LoopDriver.h"
#include "testbed/PrivateBus.h"
#include "testbed/Process.h"
#include "testbed/ScriptedPeers.h"

#include <gmock/gmock.h>

namespace {

namespace Peer = Common::Names::Zul;
using Common::PackageProperties;
using testing::ElementsAre;

class ThePackageManagerClient : public testing::Test {
protected:
    Testbed::LogCapture log_;
    Testbed::PrivateBuses buses_;
    Testbed::PackageManager zul_;
    Testbed::LoopDriver driver_;
};

TEST_F(ThePackageManagerClient, KeepsItsConnectionFromChildren) {
    const auto connection = std::to_string(driver_.connection->getEventLoopPollData().fd);
    const auto socket = std::filesystem::read_symlink("/proc/self/fd/" + connection).native();
    EXPECT_THAT(socket, testing::StartsWith("socket:"));
    EXPECT_THAT(Testbed::run({"ls", "-l", "/proc/self/fd"}).output, testing::Not(testing::HasSubstr(socket)));
}

TEST_F(ThePackageManagerClient, ForwardsSignalsInOrderAndDropsMalformedOnes) {
    std::vector<std::string> seen;
    Core::ZulProxy client(driver_.loop);
    client.addPackageInstalledHandler(
        [&](const PackageProperties& p) { seen.push_back("i1 " + p.at("general.id")); });
    client.addPackageInstalledHandler(
        [&](const PackageProperties& p) { seen.push_back("i2 " + p.at("general.id")); });
    client.addPackageUpgradedHandler(
        [&](const PackageProperties& p) { seen.push_back("u " + p.at("general.id")); });
    client.addPackageRemovedHandler([&](const std::string& id) { seen.push_back("r " + id); });
    zul_.emit(Peer::packageInstalled, PackageProperties{{"general.id", "a"}});
    zul_.emit(Peer::packageInstalled, std::string("no map"));
    zul_.emit(Peer::packageUpgraded,
              std::map<std::string, sdbus::Variant>{{"general.id", sdbus::Variant("a")}});
    zul_.emit(Peer::packageUpgraded);
    zul_.emit(Peer::packageRemoved, std::int32_t{7});
    zul_.emit(Peer::packageUpgraded, PackageProperties{{"general.id", "b"}});
    zul_.emit(Peer::packageRemoved, std::string("c"));
    EXPECT_TRUE(driver_.runUntil([&] { return seen.size() == 4; }));
    EXPECT_THAT(seen, ElementsAre("i1 a", "i2 a", "u b", "r c"));
    const auto lines = log_.lines();
    ASSERT_EQ(lines.size(), 8) << log_.text();
    EXPECT_EQ(lines[0], "WARN: couldn't retrieve package from signal: PackageInstalled");
    EXPECT_EQ(lines[2], "WARN: couldn't retrieve package from signal: PackageUpgraded");
    EXPECT_EQ(lines[6], "WARN: couldn't retrieve package id from signal: PackageRemoved");
}

TEST(APackageManagerClient, WithoutMatchRulesStillMakesCalls) {
    const Testbed::LogCapture log;
    const Testbed::PrivateBuses buses("<limit name='max_match_rules_per_connection'>0</limit>");
    Testbed::LoopDriver driver;
    Core::ZulProxy client(driver.loop);
    ASSERT_EQ(log.lines().size(), 2) << log.text();
    EXPECT_EQ(log.lines()[0], "ERROR: couldn't subscribe to ZUL signal");
    EXPECT_THROW(driver.await(client.remove("x")),
                 Common::Error); // answered by the bus: there is no such service
}

// The bus disconnects a client that sends a message above its limit.
TEST(APackageManagerClient, ReceivesSignalsAgainAfterTheBusDisconnectsIt) {
    const Testbed::LogCapture log;
    const Testbed::PrivateBuses buses("<limit name='max_message_size'>2000</limit>");
    Testbed::PackageManager zul;
    zul.refuse(Peer::remove, "norvane.ZUL.Error.Internal");
    Testbed::LoopDriver driver;
    Core::ZulProxy client(driver.loop);
    std::vector<std::string> removed;
    int appeared = 0;
    client.addPackageRemovedHandler([&](const std::string& id) { removed.push_back(id); });
    client.setAppearedHandler([&] { ++appeared; });
    EXPECT_THROW(driver.await(client.install(std::string(4000, 'x'))), Common::Error);
    EXPECT_TRUE(driver.runUntil([&] { return appeared == 1; }));
    EXPECT_THROW(driver.await(client.remove("x")), Common::Error); // by the peer
    zul.emit(Peer::packageRemoved, std::string("a"));
    EXPECT_TRUE(driver.runUntil([&] { return !removed.empty(); }));
    EXPECT_THAT(log.lines(), ElementsAre(testing::StartsWith("ERROR: lost the connection to norvane.ZUL: "),
                                         "WARN: connected to norvane.ZUL again"));
}

} // namespace
