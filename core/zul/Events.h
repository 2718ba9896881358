#pragma once

#include "common/Error.h"

#include <array>
#include <cstdint>
#include <string>
#include <syslog.h>

namespace Core::ZUL {

/// A kind of event. messageId and number must never change, because existing logs contain them.
struct EventKind {
    const char* name;      ///< shown in lists of events
    const char* messageId; ///< of its entries in the journal; field and value
    int priority;          ///< of syslog(3)
    std::uint8_t number;   ///< in the platform's event log; 0: not recorded there
};

inline constexpr EventKind packageInstalled{"PackageInstalled", "MESSAGE_ID=c66890cda4af40b2b14d8ccb9dae7f58",
                                            LOG_NOTICE, 0};
inline constexpr EventKind packageUpgraded{"PackageUpgraded", "MESSAGE_ID=2d6939f88bc947608cb972fb44d288c3",
                                           LOG_NOTICE, 1};
inline constexpr EventKind packageRemoved{"PackageRemoved", "MESSAGE_ID=45d05b0f55094931bd5ad60533d4dacc",
                                          LOG_NOTICE, 0};
inline constexpr EventKind corruptedPackageRemoved{
    "CorruptedPackageRemoved", "MESSAGE_ID=5a86b5f62d424582a49bf20eb7814d3e", LOG_WARNING, 2};
inline constexpr EventKind corruptedUpgradeRemoved{
    "CorruptedUpgradeRemoved", "MESSAGE_ID=b0f8ef6b9d19451bbe7b48a6b0f37cd8", LOG_WARNING, 3};
inline constexpr std::array eventKinds{packageInstalled, packageUpgraded, packageRemoved,
                                       corruptedPackageRemoved, corruptedUpgradeRemoved};

/// The fields of an event in the journal, in addition to MESSAGE and MESSAGE_ID.
inline constexpr const char* packageField = "VENDARA_PACKAGE";
inline constexpr const char* versionField = "VENDARA_VERSION";

/// Records an event in the platform's event log, if its kind has a number. Any thread.
/// @param code  the failure that caused it; None for a success
void logEvent(const EventKind& kind, const std::string& message,
              Common::ErrorCode code = Common::ErrorCode::None) noexcept;

/// Records an event in the systemd journal. Never fails: without a journal nothing is recorded. Blocks while
/// journald is stopped and its queue is full, as log_event() may. Any thread.
/// @param version  the package's version; empty: unknown
void recordInJournal(const EventKind& kind, const std::string& package, const std::string& version,
                     const std::string& message) noexcept;

/// Calls logEvent() and recordInJournal().
void recordEvent(const EventKind& kind, const std::string& package, const std::string& version,
                 const std::string& message, Common::ErrorCode code = Common::ErrorCode::None) noexcept;

} // namespace Core::ZUL
