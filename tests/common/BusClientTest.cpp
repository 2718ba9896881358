#include "common/BusClient.h"

#include "testbed/BusPeer.h"
#include "testbed/LogCapture.h"
#include "testbed/PrivateBus.h"
#include "testbed/WaitUntil.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>

namespace {

using Common::Bus;
using Common::BusClient;
using testing::Contains;
using testing::HasSubstr;
using testing::StartsWith;

const Common::BusEndpoint peer{Bus::Session, "test.Peer", "/test", "test.Peer"};

// A peer that echoes, keeps a call without answering it, and sends signals.
class ABusClient : public testing::Test {
protected:
    ABusClient()
        : peer_(sdbus::createSessionBusConnection(peer.service), peer.objectPath) {
        auto& object = peer_.object();
        object.registerMethod(peer.interface, "Echo", "s", "s", [](sdbus::MethodCall call) {
            std::string text;
            call >> text;
            auto reply = call.createReply();
            reply << text;
            reply.send();
        });
        object.registerMethod(peer.interface, "Keep", "", "",
                              [this](sdbus::MethodCall call) { kept_.set_value(std::move(call)); });
        peer_.start();
    }

    Testbed::LogCapture log_;
    Testbed::PrivateBuses buses_;
    std::promise<sdbus::MethodCall> kept_;
    Testbed::BusPeer peer_;
};

std::string echo(BusClient& client, const std::string& text) {
    auto reply = client.call("Echo", {}, text);
    std::string answer;
    reply >> answer;
    return answer;
}

TEST_F(ABusClient, CallsFromSeveralThreadsAtOnce) {
    BusClient client(peer);
    client.start();
    std::vector<std::thread> callers;
    callers.reserve(4);
    std::atomic<int> right = 0;
    for (int index = 0; index < 4; ++index) {
        callers.emplace_back([&, word = std::to_string(index)] {
            for (int count = 0; count < 50; ++count) {
                right += echo(client, word) == word ? 1 : 0;
            }
        });
    }
    for (auto& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(right, 200);
    EXPECT_THROW(client.call("Missing", {}), sdbus::Error);
}

TEST_F(ABusClient, LogsWhatAHandlerThrowsAndGoesOn) {
    BusClient client(peer);
    std::atomic<int> handled = 0;
    client.start({{"Word", [&](sdbus::Signal& signal) {
                       std::string word;
                       signal >> word;
                       ++handled;
                       if (word == "bad") {
                           throw std::length_error("too bad");
                       }
                       if (word == "odd") {
                           throw 1; // NOLINT: anything may be thrown
                       }
                   }}});
    for (const auto* word : {"bad", "odd", "good"}) {
        peer_.send(peer.interface, "Word", std::string(word));
    }
    EXPECT_TRUE(Testbed::waitUntil([&] { return handled == 3; }));
    EXPECT_THAT(log_.lines(), testing::ElementsAre("ERROR: couldn't handle signal: Word", "ERROR: too bad",
                                                   "ERROR: couldn't handle signal: Word"));
}

TEST_F(ABusClient, EndsQuietlyWhenTheBusGoesAway) {
    BusClient client(peer);
    client.start();
    auto pending = std::async(std::launch::async, [&] { client.call("Keep", std::chrono::minutes(1)); });
    auto call = Testbed::waitFor(kept_);
    buses_.session.stop();
    EXPECT_EQ(pending.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_THROW(pending.get(), sdbus::Error);
    EXPECT_THROW(echo(client, "late"), sdbus::Error);
    EXPECT_TRUE(Testbed::waitUntil([&] { return log_.text().find('\n') != std::string::npos; }));
    EXPECT_THAT(log_.lines(), Contains(StartsWith("ERROR: lost the connection to test.Peer: ")));
}

TEST(ABusClientWithoutABus, CannotBeMade) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    EXPECT_THROW(BusClient({Bus::System, "test.Peer", "/test", "test.Peer"}), sdbus::Error);
}

TEST(ABusClientThatMayNotSubscribe, SaysSoAndCanStillBeDestroyed) {
    const Testbed::PrivateBus bus("<limit name='max_match_rules_per_connection'>0</limit>");
    setenv("DBUS_SESSION_BUS_ADDRESS", bus.address().c_str(), 1);
    BusClient client(peer);
    EXPECT_THROW(client.start({{"Word", [](sdbus::Signal&) {}}}), sdbus::Error);
}

} // namespace
