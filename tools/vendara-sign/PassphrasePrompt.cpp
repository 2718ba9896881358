#include "tools/vendara-sign/PassphrasePrompt.h"

#include "common/Files.h"

#include <openssl/pem.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

namespace Signing {

using Common::UniqueFd;

namespace {

/// As long as it lives the terminal has no echo, and a signal that ends or stops the program stays pending.
class QuietTerminal {
public:
    explicit QuietTerminal(int terminal)
        : terminal_(terminal) {
        // Stops a background process before it sees the settings of the shell's own input.
        tcflush(terminal, TCIFLUSH);
        isTerminal_ = tcgetattr(terminal, &before_) == 0;
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP}) {
            sigaddset(&signals, signal);
        }
        sigprocmask(SIG_BLOCK, &signals, &mask_);
        pending_ = UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC));
        auto quiet = before_;
        quiet.c_lflag &= ~tcflag_t{ECHO};
        quiet.c_lflag |= ICANON | ISIG | NOFLSH; // else the kernel may drop what is written after a signal
        quiet.c_iflag |= ICRNL;
        if (isTerminal_) {
            tcsetattr(terminal, TCSAFLUSH, &quiet);
        }
    }
    ~QuietTerminal() {
        if (isTerminal_) {
            tcsetattr(terminal_, TCSAFLUSH, &before_);
        }
        sigprocmask(SIG_SETMASK, &mask_, nullptr);
    }
    QuietTerminal(const QuietTerminal&) = delete;
    QuietTerminal& operator=(const QuietTerminal&) = delete;

    /// @return false when a signal came first
    [[nodiscard]] bool waitForLine() const {
        std::array<pollfd, 2> events{{{terminal_, POLLIN, 0}, {pending_.get(), POLLIN, 0}}};
        while (poll(events.data(), events.size(), -1) < 0 && errno == EINTR) {
        }
        return events[1].revents == 0;
    }

private:
    int terminal_;
    termios before_{};
    bool isTerminal_ = false;
    sigset_t mask_{};
    UniqueFd pending_;
};

} // namespace

std::optional<Secret> promptForPassphrase(const std::string& prompt) {
    const UniqueFd terminal(open("/dev/tty", O_RDWR | O_CLOEXEC));
    Secret line(PEM_BUFSIZE + 1);
    ssize_t size = -1;
    for (bool isComplete = false; terminal && !isComplete;) {
        const QuietTerminal quiet(terminal.get());
        static_cast<void>(Common::writeAll(terminal.get(), prompt));
        isComplete = quiet.waitForLine();
        size = isComplete ? read(terminal.get(), line.data(), line.size()) : size;
        static_cast<void>(Common::writeAll(terminal.get(), std::string_view("\n")));
    }
    if (size <= 0 || line[static_cast<std::size_t>(size) - 1] != '\n') {
        return {};
    }
    line.resize(static_cast<std::size_t>(size) - 1);
    return line;
}

} // namespace Signing
