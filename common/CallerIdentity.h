#pragma once

#include <cstdint>
#include <string>

namespace Common {

/// The application on whose behalf a request is made: the initiator of an operation. A plain value.
class CallerIdentity {
public:
    CallerIdentity() = default;
    CallerIdentity(bool onSessionBus, std::string busName, std::string firstIdentity,
                   std::string secondIdentity);

    /// Whether the caller was found on the session bus; otherwise on the system bus.
    [[nodiscard]] bool onSessionBus() const { return onSessionBus_ != 0; }
    /// The unique bus name, for example ":1.57".
    [[nodiscard]] const std::string& busName() const { return busName_; }
    [[nodiscard]] const std::string& firstIdentity() const { return firstIdentity_; }
    [[nodiscard]] const std::string& secondIdentity() const { return secondIdentity_; }
    /// firstIdentity, "|", secondIdentity: equal for every connection of one application.
    [[nodiscard]] const std::string& key() const { return key_; }

    /// Whether both identity strings are equal, byte for byte; the bus name does not matter.
    [[nodiscard]] bool isSameApplication(const CallerIdentity& other) const;

private:
    std::uint32_t onSessionBus_ = 0;
    std::string busName_;
    std::string firstIdentity_;
    std::string secondIdentity_;
    std::string key_;
};

/// Asks the identification service who owns a bus name. Opens a connection for this one call and blocks up to
/// the bus library's default time-out. Any thread.
/// @param busName       unique bus name
/// @param onSessionBus  the bus on which to ask
/// Throws Error, code Internal, when the service does not tell.
[[nodiscard]] CallerIdentity identifyByBusName(std::string busName, bool onSessionBus);

/// Whether the initiator's bus name still belongs to the same application. Blocks like identifyByBusName().
/// Any thread. A failed identification is logged and means no.
[[nodiscard]] bool isSameApplicationStillOnBus(const CallerIdentity& initiator);

} // namespace Common
