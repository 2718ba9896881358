#include "common/bus/CallerIdentity.h"

#include "common/Error.h"
#include "common/Names.h"
#include "testbed/BusPeer.h"
#include "testbed/LoopDriver.h"
#include "testbed/PrivateBus.h"

#include <gmock/gmock.h>

namespace {

namespace Peer = Common::Names::Identification;

// An identification service that knows two names of one application and answers nonsense for a third.
class CallerIdentification : public testing::Test {
protected:
    CallerIdentification()
        : peer_(sdbus::createSessionBusConnection(Peer::service), Peer::objectPath) {
        peer_.object().registerMethod(Peer::interface, Peer::identifyByBusName, "s", "ss",
                                      [this](sdbus::MethodCall call) {
                                          std::string name;
                                          call >> name;
                                          if (name == ":9.9") {
                                              throw sdbus::Error("norvane.am.Error", "unknown");
                                          }
                                          auto reply = call.createReply();
                                          reply << (name == ":1.3" ? "other" : owner_) << "a|b";
                                          reply.send();
                                      });
        peer_.start();
    }

    Common::CallerIdentity identify(const std::string& name) {
        return driver_.await(client_.identify(name, driver_.soon()));
    }

    Testbed::PrivateBuses buses_;
    std::string owner_ = "app";
    Testbed::LoopDriver driver_;
    Common::CallerIdentification client_{driver_.session};

private:
    Testbed::BusPeer peer_;
};

TEST_F(CallerIdentification, DistinguishesApplicationsNotConnections) {
    const auto first = identify(":1.1");
    const auto second = identify(":1.2");
    EXPECT_EQ(first.key(), "app|a|b");
    EXPECT_EQ(first.key(), second.key());
    EXPECT_NE(first.busName(), second.busName());
    EXPECT_TRUE(first.isSameApplication(second));
    EXPECT_FALSE(first.isSameApplication(identify(":1.3")));
    owner_ = "successor";
    EXPECT_FALSE(first.isSameApplication(identify(":1.1")));
}

TEST_F(CallerIdentification, FailsWithTheNameInTheText) {
    EXPECT_THAT([&] { identify(":9.9"); },
                testing::ThrowsMessage<Common::Error>("couldn't identify the sender: :9.9"));
    buses_.session.stop();
    EXPECT_THROW(identify(":1.1"), Common::Error);
}

} // namespace
