#include "tools/vendaractl/SignalWatch.h"

#include <cerrno>
#include <sys/signalfd.h>
#include <system_error>

namespace Vendaractl {

namespace {

sigset_t watchedSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            sigaddset(&set, signal);
        }
    }
    return set;
}

} // namespace

SignalWatch::SignalWatch() {
    const auto set = watchedSignals();
    descriptor_ = Common::UniqueFd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!descriptor_) {
        throw std::system_error(errno, std::generic_category(), "couldn't watch for signals");
    }
    pthread_sigmask(SIG_BLOCK, &set, &previous_);
}

SignalWatch::~SignalWatch() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

void SignalWatch::check() const {
    signalfd_siginfo received{};
    if (read(descriptor_.get(), &received, sizeof received) == sizeof received) {
        throw Interrupted(static_cast<int>(received.ssi_signo));
    }
}

} // namespace Vendaractl
