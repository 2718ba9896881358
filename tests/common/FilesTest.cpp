#include "common/Files.h"

#include "testbed/ScratchDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Testbed {

TEST(OpeningWithinADirectory, ResolvesParentsDuringRenames) {
    const ScratchDirectory scratch;
    writeFile(scratch.path() / "inner/file", "x");
    writeFile(scratch.path() / "elsewhere/a", "x");
    const auto from = (scratch.path() / "elsewhere/a").native();
    const auto to = (scratch.path() / "inner/b").native();
    const pid_t parent = getpid();
    const pid_t renamer = fork();
    if (renamer == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        while (getppid() == parent) {
            rename(from.c_str(), to.c_str());
            rename(to.c_str(), from.c_str());
        }
        _exit(0);
    }
    const Common::UniqueFd directory(open(scratch.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    std::string way;
    for (int step = 0; step < 8; ++step) {
        way += "inner/../";
    }
    for (const auto resolve : {Common::Resolve::Beneath, Common::Resolve::InRoot}) {
        for (int i = 0; i < 50000 && !testing::Test::HasFailure(); ++i) {
            EXPECT_TRUE(Common::openWithin(directory.get(), way + "inner/file", O_RDONLY, resolve))
                << "try " << i << ": " << std::generic_category().message(errno);
        }
    }
    kill(renamer, SIGKILL);
    waitpid(renamer, nullptr, 0);
}

} // namespace Testbed
