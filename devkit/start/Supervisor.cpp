#include "devkit/start/Supervisor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Devkit {

namespace {

sigset_t handledSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&set, signal);
    }
    return set;
}

// The parent of a process, from proc(5), "stat"; 0 when there is no such process.
pid_t parentOf(const std::filesystem::path& processDirectory) {
    std::ifstream file(processDirectory / "stat");
    std::string stat;
    std::getline(file, stat);
    // The program's name comes before, in parentheses, and may hold anything.
    const auto nameEnd = stat.rfind(") ");
    return nameEnd == std::string::npos ? 0 : std::atoi(stat.c_str() + nameEnd + 4);
}

struct Children {
    bool killed = false;        // whether any could be
    std::vector<pid_t> foreign; // those that may not be
};

Children killChildren() {
    Children result;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const pid_t process = std::atoi(entry.path().filename().c_str());
        if (process > 0 && parentOf(entry.path()) == getpid()) {
            if (kill(process, SIGKILL) == 0) {
                result.killed = true;
            } else if (errno == EPERM) {
                result.foreign.push_back(process);
            }
        }
    }
    return result;
}

// Each one's children become ours with its end. What may not be killed is not waited for.
std::vector<pid_t> killDescendants() {
    for (;;) {
        auto children = killChildren();
        if (waitpid(-1, nullptr, children.killed ? 0 : WNOHANG) <= 0) {
            return children.foreign;
        }
    }
}

} // namespace

Supervisor::Supervisor() {
    const auto set = handledSignals();
    checked(sigprocmask(SIG_BLOCK, &set, nullptr), "couldn't block signals");
    signals_ = Common::UniqueFd(
        checked(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK), "couldn't create a signal descriptor"));
    checked(prctl(PR_SET_CHILD_SUBREAPER, 1), "couldn't become the reaper of child processes");
}

Supervisor::~Supervisor() { stopAll(); }

void Supervisor::start(const std::string& name, const std::vector<std::string>& arguments,
                       const SpawnOptions& options, int stopSignal) {
    adopt(name, spawn(arguments, options), stopSignal);
}

void Supervisor::adopt(const std::string& name, pid_t process, int stopSignal) {
    programs_.push_back({name, process, stopSignal});
}

Event Supervisor::wait(int descriptor, std::optional<Clock::time_point> deadline) {
    for (;;) {
        if (auto event = takeEvent()) {
            return *event;
        }
        int timeout = -1;
        if (deadline) {
            const auto rest = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
            if (rest <= 0) {
                return {Event::Kind::TimedOut, {}};
            }
            timeout = static_cast<int>(rest);
        }
        if (waitForDescriptors(descriptor, timeout)) {
            return {Event::Kind::Readable, {}};
        }
    }
}

bool Supervisor::waitForDescriptors(int descriptor, int timeout) {
    std::array<pollfd, 2> descriptors{pollfd{signals_.get(), POLLIN, 0}, pollfd{descriptor, POLLIN, 0}};
    const int ready = poll(descriptors.data(), descriptors.size(), timeout);
    if (ready < 0 && errno != EINTR) {
        checked(ready, "couldn't wait for events");
    }
    signalfd_siginfo received{};
    while (read(signals_.get(), &received, sizeof received) == sizeof received) {
        if (received.ssi_signo == SIGCHLD) {
            reap();
        } else {
            events_.push_back({Event::Kind::Signal, {}, static_cast<int>(received.ssi_signo)});
        }
    }
    return events_.empty() && ready > 0 && descriptors[1].revents != 0;
}

std::optional<Event> Supervisor::takeEvent() {
    if (events_.empty()) {
        return {};
    }
    auto event = events_.front();
    events_.pop_front();
    return event;
}

// Notes the end of programs, and lets go of other processes that have become children.
void Supervisor::reap() {
    int status = 0;
    for (pid_t process = 0; (process = waitpid(-1, &status, WNOHANG)) > 0;) {
        const auto program = std::find_if(programs_.begin(), programs_.end(),
                                          [process](const Program& each) { return each.process == process; });
        if (program != programs_.end()) {
            events_.push_back({Event::Kind::Ended, program->name, exitStatusOf(status), WIFSIGNALED(status)});
            programs_.erase(program);
        }
    }
}

void Supervisor::stop(const std::string& name) noexcept {
    for (const auto& program : programs_) {
        if (program.name == name) {
            kill(program.process, program.stopSignal);
        }
    }
}

void Supervisor::stopLast() {
    const auto program = programs_.back();
    const auto deadline = Clock::now() + std::chrono::seconds(3);
    kill(program.process, program.stopSignal);
    for (;;) {
        const auto event = wait(-1, deadline);
        if (event.kind == Event::Kind::Ended && event.program == program.name) {
            return;
        }
        if (event.kind == Event::Kind::TimedOut) {
            if (kill(program.process, SIGKILL) == 0) {
                waitpid(program.process, nullptr, 0);
            }
            programs_.pop_back();
            return;
        }
    }
}

std::vector<pid_t> Supervisor::stopAll() noexcept {
    try {
        while (!programs_.empty()) {
            stopLast();
        }
        return killDescendants();
    } catch (const std::exception&) {
        // Nothing more can be done; the kernel kills those that are asked for with this process.
        return killChildren().foreign;
    }
}

} // namespace Devkit
