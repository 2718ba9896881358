#pragma once

#include <cstdint>

/// Records one event in the platform's event log. Never fails: an event that the log does not take is lost.
/// May wait for the log's reader, so hold no lock. Any thread.
///
/// The reference implementation writes an entry of the systemd journal (systemd.journal-fields(7)) with
/// MESSAGE, the identifier "eventlog" and the decimal numbers EVENT_KIND and EVENT_VALUE. Without a journal
/// it returns at once, and as a rule the socket's queue takes the entry. While journald does not read (it is
/// stopped or starts anew) and that queue is full (net.unix.max_dgram_qlen), sd_journal_send(3) waits until
/// it reads again, without limit.
/// @param kind     what happened; the numbers are the caller's
/// @param value    a number that goes with the kind
/// @param message  text for people, ended by a zero byte; null counts as empty
extern "C" [[gnu::visibility("default")]] void log_event(std::uint8_t kind, std::uint32_t value,
                                                         const char* message) noexcept;
