#include "common/CallerIdentity.h"

#include "common/Error.h"
#include "common/Names.h"
#include "testbed/BusPeer.h"
#include "testbed/LogCapture.h"
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

    Testbed::PrivateBuses buses_;
    std::string owner_ = "app";

private:
    Testbed::BusPeer peer_;
};

TEST_F(CallerIdentification, TellsApplicationsApartNotConnections) {
    const auto first = Common::identifyByBusName(":1.1", true);
    const auto second = Common::identifyByBusName(":1.2", true);
    EXPECT_EQ(first.key(), "app|a|b");
    EXPECT_EQ(first.key(), second.key());
    EXPECT_NE(first.busName(), second.busName());
    EXPECT_TRUE(first.isSameApplication(second));
    EXPECT_FALSE(first.isSameApplication(Common::identifyByBusName(":1.3", true)));
    EXPECT_TRUE(Common::isSameApplicationStillOnBus(first));
}

TEST_F(CallerIdentification, NoticesThatANameChangedHands) {
    const auto caller = Common::identifyByBusName(":1.1", true);
    owner_ = "successor";
    EXPECT_FALSE(Common::isSameApplicationStillOnBus(caller));
}

TEST_F(CallerIdentification, FailsWithTheNameInTheText) {
    const Testbed::LogCapture log;
    EXPECT_THAT([] { return Common::identifyByBusName(":9.9", true); },
                testing::ThrowsMessage<Common::Error>("couldn't identify the sender: :9.9"));
    // Nobody answers on the system bus, and no bus at all behind a dead address.
    EXPECT_FALSE(Common::isSameApplicationStillOnBus({false, ":1.1", "app", "a|b"}));
    buses_.session.stop();
    EXPECT_FALSE(Common::isSameApplicationStillOnBus({true, ":1.1", "app", "a|b"}));
    EXPECT_THAT(log.lines(), testing::IsSupersetOf({"WARN: couldn't identify the sender: :1.1",
                                                    "WARN: couldn't identify the sender: :1.1"}));
}

} // namespace
