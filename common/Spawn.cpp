#include "common/Spawn.h"

#include "common/Files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <span>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace Common {

namespace {

std::vector<std::string> environmentWith(const std::vector<std::string>& further) {
    auto result = further;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const auto name = text.substr(0, text.find('=') + 1);
        if (std::none_of(further.begin(), further.end(),
                         [&](const auto& other) { return other.starts_with(name); })) {
            result.push_back(text);
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

bool setUpStreams(const SpawnOptions& options) {
    if (options.output >= 0 &&
        (dup2(options.output, STDOUT_FILENO) < 0 || dup2(options.output, STDERR_FILENO) < 0)) {
        return false;
    }
    if (options.inherited >= 0 && fcntl(options.inherited, F_SETFD, 0) < 0) {
        return false;
    }
    if (options.terminal) {
        return true;
    }
    const int input = options.input >= 0 ? options.input : open("/dev/null", O_RDONLY | O_CLOEXEC);
    return setsid() >= 0 && input >= 0 && dup2(input, STDIN_FILENO) >= 0;
}

// Runs in the child, where other threads of the parent may have held any lock: makes system calls only.
// Returns the errno value of the failed call.
int becomeProgram(char* const* arguments, char** environment, const SpawnOptions& options, pid_t parent) {
    for (const int signal : {SIGINT, SIGTERM, SIGPIPE, SIGCHLD, SIGHUP, SIGQUIT}) {
        struct sigaction action {};
        sigaction(signal, nullptr, &action);
        if (!options.terminal || action.sa_handler != SIG_IGN) {
            std::signal(signal, SIG_DFL);
        }
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (!setUpStreams(options) || (!options.directory.empty() && chdir(options.directory.c_str()) != 0) ||
        prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) {
        return errno;
    }
    if (getppid() != parent) {
        return ESRCH;
    }
    // Before the lookup, which uses the PATH of the new environment.
    environ = environment;
    execvp(arguments[0], arguments);
    return errno;
}

} // namespace

int exitStatusOf(int waitStatus) noexcept {
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

UniqueFd openProcess(pid_t process) {
    // The declaration in the headers of glibc 2.36 cannot be used in C++.
    UniqueFd descriptor(static_cast<int>(syscall(SYS_pidfd_open, process, 0U)));
    if (!descriptor && errno != ESRCH) {
        throw filesystemError("couldn't open a process");
    }
    return descriptor;
}

std::pair<UniqueFd, UniqueFd> makePipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw filesystemError("couldn't create a pipe");
    }
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

void reap(pid_t child) noexcept {
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

pid_t spawn(const std::vector<std::string>& arguments, const SpawnOptions& options) {
    auto argumentStrings = arguments;
    auto environmentStrings = environmentWith(options.environment);
    const auto argumentPointers = pointersTo(argumentStrings);
    auto environmentPointers = pointersTo(environmentStrings);
    auto [reading, writing] = makePipe();
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) {
        throw filesystemError("couldn't create a process");
    }
    int failure = 0;
    if (child == 0) {
        failure = becomeProgram(argumentPointers.data(), environmentPointers.data(), options, parent);
        static_cast<void>(!write(writing.get(), &failure, sizeof failure));
        _exit(127);
    }
    writing = UniqueFd();
    if (readAll(reading.get(), std::as_writable_bytes(std::span(&failure, 1))) == sizeof failure) {
        reap(child);
        throw std::system_error(failure, std::generic_category(), "couldn't start " + arguments.front());
    }
    return child;
}

} // namespace Common
