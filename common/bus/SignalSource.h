#pragma once

#include "common/bus/BusConnection.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Common {

/// Receives a service's signals on a connection, also after it has reconnected. Only signals from the bus
/// connection that owns the service's name are accepted, because any client of the bus can send any signal to
/// another one. Other signals are dropped; the first one is logged. Loop's thread only, once the loop runs.
class SignalSource {
public:
    /// Gets the name's owner from the bus and subscribes to its changes. Blocks: call it before the loop
    /// runs.
    /// @param appeared  called when another connection has acquired the name
    /// @param vanished  called when the name has no owner any more
    /// Throws sdbus::Error for an error reply of the bus.
    SignalSource(BusConnection& connection, std::string service, std::function<void()> appeared = {},
                 std::function<void()> vanished = {});
    ~SignalSource();
    SignalSource(const SignalSource&) = delete;
    SignalSource& operator=(const SignalSource&) = delete;

    [[nodiscard]] bool hasOwner() const { return !owner().empty(); }
    /// @return the unique name of the connection that owns the service's name; empty if there is none
    [[nodiscard]] const std::string& owner() const { return subscriptions_.owner; }

    /// Subscribes a handler to a signal. Its exceptions are logged. Blocks and throws as the constructor
    /// does.
    void subscribe(const std::string& objectPath, const std::string& interface, const std::string& signal,
                   std::function<void(sdbus::Message&)> handler);

private:
    friend class BusConnection;
    using Handler = std::function<void(sdbus::Message&)>;
    struct Subscriptions {
        std::string owner; // unique name; empty: none
        std::vector<sdbus::Slot> slots;
    };
    struct Wanted {
        std::string service;
        std::vector<std::pair<std::string, Handler>> matches;
        [[nodiscard]] Subscriptions subscribeOn(sdbus::IConnection& bus) const;
        [[nodiscard]] std::string findOwner(sdbus::IConnection& bus) const;
    };

    void takeOwner(sdbus::Message& message);
    [[nodiscard]] bool isFromOwner(const sdbus::Message& message, const std::string& signal);

    BusConnection& connection_;
    Wanted wanted_;
    std::function<void()> appeared_;
    std::function<void()> vanished_;
    Subscriptions subscriptions_;
    bool hasLogged_ = false;
};

} // namespace Common
