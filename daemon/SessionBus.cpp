#include "daemon/SessionBus.h"

#include "common/LogLine.h"
#include "common/Names.h"
#include "common/bus/BusConnection.h"

#include <poll.h>
#include <utility>

namespace Daemon {

namespace {

namespace MessageBus = Common::Names::MessageBus;
using Common::BusConnection;

std::shared_ptr<sdbus::IConnection> open() {
    try {
        return sdbus::createSessionBusConnection();
    } catch (const sdbus::Error& error) {
        throw sdbus::Error(error.getName(), "couldn't connect to the session bus: " + error.getMessage());
    }
}

// All these errors come from the bus: no client can send to a connection without a unique name. sd-bus
// refuses access to a bus with another GUID than in the address.
std::shared_ptr<sdbus::IConnection> openAgain() {
    for (int attempts = 1;; ++attempts) {
        try {
            return open();
        } catch (const sdbus::Error& error) {
            const auto& name = error.getName();
            if (name == "System.Error.ECONNREFUSED" || name == "org.freedesktop.DBus.Error.FileNotFound" ||
                name == "org.freedesktop.DBus.Error.AccessDenied") {
                throw SessionBus::Gone(error.getMessage());
            }
            // A bus that ends now refuses the next attempt.
            const bool wasClosed = name == "System.Error.ENOTCONN" || name == "System.Error.EPIPE" ||
                                   name == "org.freedesktop.DBus.Error.Disconnected";
            if (!wasClosed || attempts == 3) {
                throw;
            }
        }
    }
}

std::string idOf(sdbus::IConnection& connection) {
    return BusConnection::ask<std::string>(connection, "GetId");
}

// A lost connection has the name until the bus has read what it sent last. Another program may have waited
// for the name before.
void waitForName(sdbus::IConnection& connection) {
    constexpr std::uint32_t noFlags = 0;
    constexpr std::uint32_t inQueue = 2;
    constexpr int usualLimit = 2000; // milliseconds
    const auto& name = Common::Names::Vendara::service;
    bool isOwner = false;
    std::string loggedOwner;
    const auto slot = connection.addMatch(
        "type='signal',sender='" + MessageBus::service + "',member='NameAcquired',arg0='" + name + "'",
        [&](sdbus::Message& signal) { isOwner = isOwner || signal.getSender() == MessageBus::service; });
    isOwner = BusConnection::ask<std::uint32_t>(connection, "RequestName", name, noFlags) != inQueue;
    while (!isOwner) {
        if (!connection.processPendingRequest()) {
            pollfd socket{connection.getEventLoopPollData().fd, POLLIN, 0};
            if (poll(&socket, 1, usualLimit) == 0) {
                const auto owner = BusConnection::ask<std::string>(connection, "GetNameOwner", name);
                if (owner != connection.getUniqueName() && owner != std::exchange(loggedOwner, owner)) {
                    Common::logWarning()
                        << "waiting for the name " << name << ", which is owned by " << owner;
                }
            }
        }
    }
}

} // namespace

std::shared_ptr<sdbus::IConnection> SessionBus::connect() {
    auto connection = open();
    connection->requestName(Common::Names::Vendara::service);
    return connection;
}

SessionBus::SessionBus(sdbus::IConnection& connection)
    : id_(idOf(connection)) {}

// On another bus at the same address the callers' names belong to others.
std::shared_ptr<sdbus::IConnection> SessionBus::reconnect() const {
    auto connection = openAgain();
    if (idOf(*connection) != id_) {
        throw Gone("the session bus was replaced");
    }
    waitForName(*connection);
    return connection;
}

} // namespace Daemon
