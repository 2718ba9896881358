#pragma once

#include "common/UniqueFd.h"

#include <csignal>
#include <exception>

namespace Vendaractl {

/// The user ended the program with a signal while it was waiting.
class Interrupted : public std::exception {
public:
    explicit Interrupted(int signal)
        : signal_(signal) {}
    [[nodiscard]] int signal() const { return signal_; }
    [[nodiscard]] const char* what() const noexcept override { return "interrupted"; }

private:
    int signal_;
};

/// Turns SIGINT, SIGTERM and SIGHUP into something that poll(2) waits for, as long as it lives; a signal that
/// the program was started to ignore stays ignored. Main thread only.
class SignalWatch {
public:
    /// Throws std::system_error when the system has no descriptors left.
    SignalWatch();
    /// The signals have their usual effect again.
    ~SignalWatch();
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

    /// Readable when a signal has arrived.
    [[nodiscard]] int descriptor() const { return descriptor_.get(); }
    /// Throws Interrupted when a signal has arrived.
    void check() const;

private:
    sigset_t previous_{};
    Common::UniqueFd descriptor_;
};

} // namespace Vendaractl
