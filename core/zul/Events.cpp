#include "core/zul/Events.h"

#include "platform/eventlog/eventlog.h"

// CODE_FILE and CODE_LINE would be the same for every event.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

namespace Core::ZUL {

void logEvent(const EventKind& kind, const std::string& message, Common::ErrorCode code) noexcept {
    if (kind.number != 0) {
        log_event(kind.number, static_cast<std::uint32_t>(code), message.c_str());
    }
}

void recordInJournal(const EventKind& kind, const std::string& package, const std::string& version,
                     const std::string& message) noexcept {
    sd_journal_send("%s", kind.messageId, "PRIORITY=%d", kind.priority, "MESSAGE=%s", message.c_str(),
                    "%s=%s", packageField, package.c_str(), "%s=%s", versionField, version.c_str(), nullptr);
}

void recordEvent(const EventKind& kind, const std::string& package, const std::string& version,
                 const std::string& message, Common::ErrorCode code) noexcept {
    logEvent(kind, message, code);
    recordInJournal(kind, package, version, message);
}

} // namespace Core::ZUL
