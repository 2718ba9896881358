#include "devkit/start/Descendants.h"

#include "common/Files.h"

#include <cerrno>
#include <csignal>
#include <fstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Devkit {

void adoptDescendants() {
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        throw Common::filesystemError("couldn't become the reaper of child processes");
    }
}

std::vector<pid_t> killDescendants() {
    const auto own = std::to_string(getpid());
    const auto list = "/proc/" + own + "/task/" + own + "/children";
    for (;;) {
        bool isAnyKilled = false;
        std::vector<pid_t> foreign;
        std::ifstream children(list);
        for (pid_t child = 0; children >> child;) {
            if (kill(child, SIGKILL) == 0) {
                isAnyKilled = true;
            } else if (errno == EPERM) {
                foreign.push_back(child);
            }
        }
        // When a child ends, its children become children of this process.
        if (waitpid(-1, nullptr, isAnyKilled ? 0 : WNOHANG) <= 0) {
            return foreign;
        }
    }
}

} // namespace Devkit
