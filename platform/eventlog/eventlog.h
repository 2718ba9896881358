#pragma once

#include <cstdint>

/// Records one event in the platform's event log. Never fails: an event that cannot be recorded is lost. May
/// block, so hold no lock. Any thread.
///
/// The reference implementation writes an entry to the systemd journal (systemd.journal-fields(7)) with
/// MESSAGE, the identifier "eventlog" and the decimal numbers EVENT_KIND and EVENT_VALUE. Without a journal
/// it returns at once. While journald is stopped or restarting and its socket's queue is full
/// (net.unix.max_dgram_qlen), sd_journal_send(3) blocks without limit.
/// @param kind     of the event; numbers are assigned by the caller
/// @param value    a number whose meaning depends on the kind
/// @param message  human-readable text, terminated by a zero byte; null: empty
extern "C" [[gnu::visibility("default")]] void log_event(std::uint8_t kind, std::uint32_t value,
                                                         const char* message) noexcept;
