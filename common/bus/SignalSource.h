#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <functional>
#include <string>
#include <vector>

namespace Common {

/// Receives a service's signals on one connection. Only signals from the connection that owns the service's
/// name are accepted, because any client of the bus can send any signal to another connection. Other signals
/// are dropped; the first one is logged. Loop's thread only, once the connection is driven by a loop.
class SignalSource {
public:
    /// Gets the name's owner from the bus and subscribes to its changes. Blocks: call it before the loop runs
    /// or on a helper thread.
    /// @param appeared  called when another connection has acquired the name
    /// @param vanished  called when the name has no owner any more
    /// Throws sdbus::Error for an error reply of the bus.
    SignalSource(sdbus::IConnection& connection, std::string service, std::function<void()> appeared = {},
                 std::function<void()> vanished = {});
    SignalSource(const SignalSource&) = delete;
    SignalSource& operator=(const SignalSource&) = delete;

    [[nodiscard]] bool hasOwner() const { return !owner_.empty(); }
    /// @return the unique name of the connection that owns the service's name; empty if there is none
    [[nodiscard]] const std::string& owner() const { return owner_; }

    /// Subscribes a handler to a signal. Its exceptions are logged. Blocks and throws as the constructor
    /// does.
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
    std::string owner_; // unique name; empty: none
    bool hasLogged_ = false;
    std::vector<sdbus::Slot> slots_;
};

} // namespace Common
