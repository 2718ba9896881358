#include "testbed/Process.h"

#include "common/Files.h"
#include "common/Spawn.h"
#include "testbed/ScratchDirectory.h"

#include <csignal>
#include <sys/mman.h>

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

} // namespace

Common::UniqueFd streamFile(const std::string& content) {
    Common::UniqueFd file(memfd_create("standard-stream", MFD_CLOEXEC));
    if (!Common::writeAll(file.get(), content)) {
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
        status_ = Common::waitForEnd(pid_, limit).value_or(-1);
    }
    return status_;
}

bool Process::isRunning() { return wait(std::chrono::milliseconds(0)) < 0; }

std::string Process::output() const { return readFile(output_); }

ProcessResult run(const std::vector<std::string>& arguments, const Process::Options& options) {
    Process process(arguments, options);
    const int status = process.wait(std::chrono::minutes(4));
    return {status, process.output()};
}

} // namespace Testbed
