#include "client/Client.h"

#include "testbed/PrivateBus.h"
#include "testbed/ScriptedService.h"

#include <gtest/gtest.h>

namespace {

using namespace Testbed;

class Ends : public Vendara::Listener {
public:
    void changed(const Vendara::Operation& operation) override { hasEnded = operation.hasEnded(); }
    void lost(const Vendara::Operation& /*operation*/) override { isLost = true; }
    bool hasEnded = false;
    bool isLost = false;
};

TEST(TheClientLibrary, IgnoresAnnouncementsFromBeforeAttach) {
    const PrivateBuses buses;
    ScriptedService service({{"app", {.known = true}}});
    Ends ends;
    Vendara::Client client(ends, {});
    service.peer().send(Own::interface, Own::packageInstalled, ScriptedService::package("app"));
    client.attach(client.properties().operations.at(0));
    service.hidesOperations = true;
    EXPECT_FALSE(client.follow());
    EXPECT_TRUE(ends.isLost && !ends.hasEnded);
}

} // namespace
