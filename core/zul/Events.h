#pragma once

#include "common/Error.h"
#include "platform/eventlog/eventlog.h"

#include <cstdint>
#include <string>

namespace Core::ZUL {

/// What the database reports to the platform's event log. The numbers stand in recorded logs.
enum class Event : std::uint8_t {
    PackageUpgraded = 1,
    CorruptedPackageRemoved = 2,
    CorruptedUpgradeRemoved = 3,
};

/// Records an event. Any thread.
/// @param code  the failure that led to it; None for a success
inline void recordEvent(Event event, Common::ErrorCode code, const std::string& message) noexcept {
    log_event(static_cast<std::uint8_t>(event), static_cast<std::uint32_t>(code), message.c_str());
}

} // namespace Core::ZUL
