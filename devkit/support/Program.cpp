#include "devkit/support/Program.h"

#include "devkit/support/Spawn.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace Devkit {

Program::Program(const std::vector<std::string>& arguments, const std::vector<std::string>& environment)
    : name_(arguments.front()) {
    std::array<int, 2> ends{};
    checked(pipe2(ends.data(), O_CLOEXEC), "couldn't create a pipe");
    pipe_ = Common::UniqueFd(ends[0]);
    const Common::UniqueFd writing(ends[1]);
    SpawnOptions options;
    options.environment = environment;
    options.output = writing.get();
    process_ = spawn(arguments, options);
}

Program::~Program() {
    if (process_ > 0) {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
}

std::optional<std::string> Program::readLine(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (const auto end = output_.find('\n', read_); end != std::string::npos) {
            auto line = output_.substr(read_, end - read_);
            read_ = end + 1;
            return line;
        }
        const auto rest =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (rest.count() <= 0) {
            throw std::runtime_error("timed out waiting for output of " + name_ + ", which has written:\n" +
                                     output_);
        }
        pollfd descriptor{pipe_.get(), POLLIN, 0};
        if (poll(&descriptor, 1, static_cast<int>(rest.count())) <= 0) {
            continue;
        }
        std::array<char, 4096> text{};
        const auto length = read(pipe_.get(), text.data(), text.size());
        if (length == 0) {
            auto line = output_.substr(read_);
            read_ = output_.size();
            return line.empty() ? std::nullopt : std::optional(line);
        }
        if (length > 0) {
            output_.append(text.data(), static_cast<std::size_t>(length));
        }
    }
}

int Program::wait() {
    int status = 0;
    checked(waitpid(process_, &status, 0), "couldn't wait for a program");
    process_ = -1;
    return exitStatusOf(status);
}

} // namespace Devkit
