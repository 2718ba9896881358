#include "platform/eventlog/eventlog.h"

// CODE_FILE and CODE_LINE would be the same for every event.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <syslog.h>

void log_event(std::uint8_t kind, std::uint32_t value, const char* message) noexcept {
    sd_journal_send("MESSAGE=%s", message != nullptr ? message : "", "PRIORITY=%d", LOG_NOTICE,
                    "EVENT_KIND=%u", unsigned{kind}, "EVENT_VALUE=%u", unsigned{value},
                    "SYSLOG_IDENTIFIER=eventlog", nullptr);
}
