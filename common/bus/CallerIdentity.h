#pragma once

#include "common/bus/RemoteObject.h"

#include <string>

namespace Common {

/// The application that makes a request, for example the initiator of an operation. A plain value.
class CallerIdentity {
public:
    CallerIdentity() = default;
    CallerIdentity(std::string busName, std::string firstIdentity, std::string secondIdentity);

    /// The unique bus name on the session bus, for example ":1.57".
    [[nodiscard]] const std::string& busName() const { return busName_; }
    [[nodiscard]] const std::string& firstIdentity() const { return firstIdentity_; }
    [[nodiscard]] const std::string& secondIdentity() const { return secondIdentity_; }
    /// firstIdentity, "|", secondIdentity: the same for all connections of an application.
    [[nodiscard]] const std::string& key() const { return key_; }

    /// Whether both identity strings are equal, byte for byte; bus names are not compared.
    [[nodiscard]] bool isSameApplication(const CallerIdentity& other) const;

private:
    std::string busName_;
    std::string firstIdentity_;
    std::string secondIdentity_;
    std::string key_;
};

/// Client of the identification service. Nothing is cached. Loop's thread only.
class CallerIdentification {
public:
    /// Blocks for the bus. Throws sdbus::Error for an error reply of the bus.
    explicit CallerIdentification(BusConnection& session);

    /// Identifies the application that owns a unique name of the session bus.
    /// Throws Error, code Internal, when the service returns an error or does not reply before the deadline.
    [[nodiscard]] asio::awaitable<CallerIdentity> identify(std::string busName, TimePoint deadline);

private:
    BusConnection& session_;
    SignalSource owner_;
    RemoteObject service_;
};

} // namespace Common
