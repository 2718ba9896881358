#pragma once

#include "testbed/Process.h"
#include "testbed/ScratchDirectory.h"

#include <memory>
#include <string>

namespace Testbed {

/// A dbus-daemon of the test's own, without any service of the host.
class PrivateBus {
public:
    /// @param limits  further configuration elements, for example "<limit name='...'>1</limit>"
    explicit PrivateBus(const std::string& limits = {});

    [[nodiscard]] const std::string& address() const { return address_; }
    /// Lets other users connect. The directory of the bus is the test's own otherwise.
    void openToOthers() const;
    /// For example SIGSTOP, for a bus that does not read.
    void signal(int number) const { daemon_->signal(number); }
    /// Sends, as another client, a reply to each call that may be pending.
    /// @param body  in GVariant's text format
    /// @param caller  a bus name; empty: every connection
    void forgeReplies(const std::string& body, const std::string& caller = {}) const;
    /// Kills the bus.
    void stop() { daemon_.reset(); }

private:
    ScratchDirectory scratch_;
    std::string address_;
    std::unique_ptr<Process> daemon_;
};

/// A system and a session bus, found by this process and its children.
class PrivateBuses {
public:
    /// @param limits  of both, as PrivateBus() takes them
    explicit PrivateBuses(const std::string& limits = {});

    PrivateBus system;
    PrivateBus session;
};

} // namespace Testbed
