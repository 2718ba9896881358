#include "testbed/Process.h"

#include "common/Files.h"
#include "common/Spawn.h"
#include "testbed/ScratchDirectory.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>

namespace Testbed {

namespace {

Common::SpawnOptions spawnOptions(const Process::Options& options) {
    Common::SpawnOptions result;
    for (const auto& [name, value] : options.environment) {
        result.environment.push_back(name);
        result.environment.back().append("=").append(value);
    }
    result.directory = options.directory;
    return result;
}

// @return nothing when the limit has passed
std::optional<int> waitForEnd(pid_t child, std::chrono::milliseconds limit) {
    const auto process = Common::openProcess(child);
    pollfd descriptor{process.get(), POLLIN, 0};
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int ready = 0;
    do {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        ready = poll(&descriptor, 1, std::max(0, static_cast<int>(left.count())));
    } while (ready < 0 && errno == EINTR);
    int status = 0;
    if (ready <= 0 || waitpid(child, &status, 0) != child) {
        return {};
    }
    return Common::exitStatusOf(status);
}

} // namespace

Common::UniqueFd streamFile(const std::string& content) {
    Common::UniqueFd file(memfd_create("standard-stream", MFD_CLOEXEC));
    // In a file in memory, writes at the same time overwrite each other unless they append.
    if (fcntl(file.get(), F_SETFL, O_APPEND) != 0 || !Common::writeAll(file.get(), content)) {
        throw Common::filesystemError("couldn't write a standard stream");
    }
    lseek(file.get(), 0, SEEK_SET);
    return file;
}

Process::Process(const std::vector<std::string>& arguments, const Options& options)
    : output_(streamFile()) {
    const auto input = streamFile(options.input);
    auto spawning = spawnOptions(options);
    spawning.input = input.get();
    spawning.output = output_.get();
    pid_ = Common::spawn(arguments, spawning);
}

Process::~Process() {
    if (isRunning()) {
        kill(pid_, SIGKILL);
        wait();
    }
}

void Process::signal(int number) const { kill(pid_, number); }

int Process::wait(std::chrono::milliseconds limit) {
    if (status_ < 0) {
        status_ = waitForEnd(pid_, limit).value_or(-1);
    }
    return status_;
}

bool Process::isRunning() { return wait(std::chrono::milliseconds(0)) < 0; }

std::string Process::output() const { return readFile(output_); }

bool Process::shows(const std::string& text) const {
    return waitUntil([&] { return output().find(text) != std::string::npos; });
}

ProcessResult run(const std::vector<std::string>& arguments, const Process::Options& options) {
    Process process(arguments, options);
    const int status = process.wait(std::chrono::minutes(4));
    return {status, process.output()};
}

} // namespace Testbed
