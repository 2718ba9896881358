#include "devkit/support/Spawn.h"

#include "common/UniqueFd.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Devkit {

namespace {

// Whether the variable of the entry "NAME=value" is among the others.
bool isReplaced(const std::string& entry, const std::vector<std::string>& others) {
    const auto name = entry.substr(0, entry.find('=') + 1);
    for (const auto& other : others) {
        if (other.starts_with(name)) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> environmentWith(const std::vector<std::string>& further) {
    auto result = further;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!isReplaced(*entry, further)) {
            result.emplace_back(*entry);
        }
    }
    return result;
}

std::vector<char*> pointersTo(std::vector<std::string>& strings) {
    std::vector<char*> result;
    result.reserve(strings.size() + 1);
    for (auto& string : strings) {
        result.push_back(string.data());
    }
    result.push_back(nullptr);
    return result;
}

enum class Step { SetUp, Preparation, Execution };

/// What keeps a child from starting its program.
struct Failure {
    int error = 0; ///< errno value
    Step step = Step::SetUp;
};

// Runs in the child.
Failure becomeProgram(char* const* arguments, char** environment, const SpawnOptions& options, pid_t parent) {
    for (const int signal : {SIGINT, SIGTERM, SIGPIPE, SIGCHLD, SIGHUP}) {
        std::signal(signal, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (options.output >= 0 &&
        (dup2(options.output, STDOUT_FILENO) < 0 || dup2(options.output, STDERR_FILENO) < 0)) {
        return {errno};
    }
    if (!options.terminal) {
        const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (setsid() < 0 || null < 0 || dup2(null, STDIN_FILENO) < 0) {
            return {errno};
        }
    }
    if (options.prepare) {
        if (const int error = options.prepare(); error != 0) {
            return {error, Step::Preparation};
        }
    }
    // Last: a change of credentials takes the parent-death signal away.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) {
        return {errno};
    }
    if (getppid() != parent) {
        return {ESRCH};
    }
    // Before the lookup, which goes by the PATH that the program is to have.
    environ = environment;
    execvp(arguments[0], arguments);
    return {errno, Step::Execution};
}

[[noreturn]] void throwFailure(const Failure& failure, const std::string& words) {
    const std::error_code code(failure.error, std::generic_category());
    switch (failure.step) {
    case Step::Preparation:
        throw PreparationError(code, words);
    case Step::Execution:
        throw ExecutionError(code, words);
    case Step::SetUp:
        break;
    }
    throw std::system_error(code, words);
}

} // namespace

int checked(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

int exitStatusOf(int waitStatus) {
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

pid_t spawn(const std::vector<std::string>& arguments, const SpawnOptions& options) {
    auto argumentStrings = arguments;
    auto environmentStrings = environmentWith(options.environment);
    const auto argumentPointers = pointersTo(argumentStrings);
    auto environmentPointers = pointersTo(environmentStrings);
    std::array<int, 2> ends{};
    checked(pipe2(ends.data(), O_CLOEXEC), "couldn't create a pipe");
    const Common::UniqueFd reading(ends[0]);
    Common::UniqueFd writing(ends[1]);
    const pid_t parent = getpid();
    const pid_t child = checked(fork(), "couldn't create a process");
    if (child == 0) {
        const auto failure =
            becomeProgram(argumentPointers.data(), environmentPointers.data(), options, parent);
        static_cast<void>(!write(writing.get(), &failure, sizeof failure));
        _exit(127);
    }
    writing = Common::UniqueFd();
    Failure failure;
    if (read(reading.get(), &failure, sizeof failure) == sizeof failure) {
        waitpid(child, nullptr, 0);
        throwFailure(failure, "couldn't start " + arguments.front());
    }
    return child;
}

} // namespace Devkit
