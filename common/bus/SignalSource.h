#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <functional>
#include <string>
#include <vector>

namespace Common {

/// A service's signals on one connection, believed only when they come from the connection that owns the
/// service's name: anybody on the bus can address a signal of any name to another connection. Others are
/// dropped; the first of them is logged. Loop's thread only, once the connection is driven by a loop.
class SignalSource {
public:
    /// Asks the bus for the owner and follows it; waits for the bus, so before the loop runs or on its helper
    /// thread.
    /// @param appeared  called when another connection has got the name
    /// @param vanished  called when no connection has it any more
    /// Throws sdbus::Error when the bus refuses.
    SignalSource(sdbus::IConnection& connection, std::string service, std::function<void()> appeared = {},
                 std::function<void()> vanished = {});
    SignalSource(const SignalSource&) = delete;
    SignalSource& operator=(const SignalSource&) = delete;

    [[nodiscard]] bool hasOwner() const { return !owner_.empty(); }
    /// @return the unique name of the connection that owns the service's name; empty without one
    [[nodiscard]] const std::string& owner() const { return owner_; }

    /// Has the handler called for each signal of this name. What it throws is logged. Waits and throws as the
    /// constructor does.
    void subscribe(const std::string& objectPath, const std::string& interface, const std::string& signal,
                   std::function<void(sdbus::Message&)> handler);

private:
    void followOwner();
    void findOwner();
    [[nodiscard]] bool isFromOwner(const sdbus::Message& message, const std::string& signal);

    sdbus::IConnection& connection_;
    std::string service_;
    std::function<void()> appeared_;
    std::function<void()> vanished_;
    std::string owner_; // unique name; empty without one
    bool hasLogged_ = false;
    std::vector<sdbus::Slot> slots_;
};

} // namespace Common
