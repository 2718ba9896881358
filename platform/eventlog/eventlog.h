#pragma once

#include <cstdint>

/// Records one event in the platform's event log. Never fails and never waits for a reader: an event that the
/// log cannot take is lost. Any thread.
///
/// The reference implementation writes an entry of the systemd journal (systemd.journal-fields(7)) with
/// MESSAGE and the decimal numbers EVENT_KIND and EVENT_VALUE.
/// @param kind     what happened; the numbers are the caller's
/// @param value    a number that goes with the kind
/// @param message  text for people, ended by a zero byte; null counts as empty
extern "C" void log_event(std::uint8_t kind, std::uint32_t value, const char* message) noexcept;
