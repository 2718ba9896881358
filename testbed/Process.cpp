#include "testbed/Process.h"

#include "testbed/ScratchDirectory.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace Testbed {

namespace {

Common::UniqueFd fileOf(const std::string& content) {
    Common::UniqueFd file(memfd_create("standard-stream", MFD_CLOEXEC));
    if (write(file.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
        throw std::runtime_error("couldn't write a standard stream");
    }
    lseek(file.get(), 0, SEEK_SET);
    return file;
}

std::vector<std::string> environmentWith(const std::map<std::string, std::string>& additions) {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (!additions.contains(text.substr(0, text.find('=')))) {
            variables.push_back(text);
        }
    }
    for (const auto& [name, value] : additions) {
        variables.push_back(name);
        variables.back().append("=").append(value);
    }
    return variables;
}

std::vector<char*> pointersTo(std::vector<std::string>& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (auto& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

Process::Process(const std::vector<std::string>& arguments, const Options& options)
    : output_(memfd_create("output", MFD_CLOEXEC)) {
    const auto input = fileOf(options.input);
    auto variables = environmentWith(options.environment);
    auto words = arguments;
    const auto environment = pointersTo(variables);
    const auto argv = pointersTo(words);

    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(input.get(), STDIN_FILENO);
        dup2(output_.get(), STDOUT_FILENO);
        dup2(output_.get(), STDERR_FILENO);
        if (options.directory.empty() || chdir(options.directory.c_str()) == 0) {
            execvpe(argv[0], argv.data(), environment.data());
        }
        _exit(127);
    }
}

Process::~Process() {
    if (isRunning()) {
        kill(pid_, SIGKILL);
        wait();
    }
}

void Process::signal(int number) const { kill(pid_, number); }

int Process::wait(std::chrono::milliseconds limit) {
    if (status_ >= 0) {
        return status_;
    }
    const Common::UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    pollfd descriptor{process.get(), POLLIN, 0};
    if (poll(&descriptor, 1, static_cast<int>(limit.count())) <= 0) {
        return -1;
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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
