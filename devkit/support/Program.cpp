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

Program::Program(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
    std::array<int, 2> ends{};
    checked(pipe2(ends.data(), O_CLOEXEC), "couldn't create a pipe");
    output_ = Common::UniqueFd(ends[0]);
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
        if (const auto end = unread_.find('\n'); end != std::string::npos) {
            auto line = unread_.substr(0, end);
            unread_.erase(0, end + 1);
            return line;
        }
        const auto rest =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd descriptor{output_.get(), POLLIN, 0};
        if (rest.count() <= 0 || poll(&descriptor, 1, static_cast<int>(rest.count())) == 0) {
            throw std::runtime_error("waited in vain for a line of output");
        }
        std::array<char, 4096> text{};
        const auto length = read(output_.get(), text.data(), text.size());
        if (length == 0) {
            return unread_.empty() ? std::nullopt : std::optional(std::exchange(unread_, {}));
        }
        if (length > 0) {
            unread_.append(text.data(), static_cast<std::size_t>(length));
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
