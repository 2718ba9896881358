#pragma once

#include "common/bus/RemoteObject.h"

#include <string>

namespace Common {

/// The application on whose behalf a request is made: the initiator of an operation. A plain value.
class CallerIdentity {
public:
    CallerIdentity() = default;
    CallerIdentity(std::string busName, std::string firstIdentity, std::string secondIdentity);

    /// The unique bus name on the session bus, for example ":1.57".
    [[nodiscard]] const std::string& busName() const { return busName_; }
    [[nodiscard]] const std::string& firstIdentity() const { return firstIdentity_; }
    [[nodiscard]] const std::string& secondIdentity() const { return secondIdentity_; }
    /// firstIdentity, "|", secondIdentity: equal for every connection of one application.
    [[nodiscard]] const std::string& key() const { return key_; }

    /// Whether both identity strings are equal, byte for byte; the bus name does not matter.
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
    explicit CallerIdentification(BusConnection& session);

    /// Asks which application owns a unique name of the session bus.
    /// Throws Error, code Internal, when the service does not say so before the deadline.
    [[nodiscard]] asio::awaitable<CallerIdentity> identify(std::string busName, TimePoint deadline);

private:
    RemoteObject service_;
};

} // namespace Common
