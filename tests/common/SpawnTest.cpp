#include "common/Spawn.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/time.h>
#include <system_error>

TEST(Spawning, ReportsAMissingProgramAlsoWhenSignalsInterruptIt) {
    struct sigaction action {};
    action.sa_handler = [](int) {}; // without SA_RESTART
    sigaction(SIGALRM, &action, nullptr);
    const itimerval every100Microseconds{{0, 100}, {0, 100}};
    setitimer(ITIMER_REAL, &every100Microseconds, nullptr);
    for (int round = 0; round < 100; ++round) {
        EXPECT_THROW(static_cast<void>(Common::spawn({"/none"})), std::system_error);
    }
}
