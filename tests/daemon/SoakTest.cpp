#include "testbed/Soak.h"

#include "tests/daemon/DaemonTest.h"

#include <csignal>

namespace Testbed {

namespace {

TEST(TheDaemonInASoakTest, LosesNoOperation) {
    const ScratchDirectory scratch;
    const PrivateBuses buses;
    const auto package = buildPackage(scratch.path(), {});
    Process daemon({VENDARA_DAEMON}, {.environment = {{"HOME", scratch.path()}}});
    ASSERT_TRUE(waitForService()) << daemon.output();
    for (const bool withChaos : {true, false}) {
        EXPECT_EQ(soak({.withChaos = withChaos}, package), "") << daemon.output().substr(0, 3000);
    }
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0) << daemon.output();
}

} // namespace

} // namespace Testbed
