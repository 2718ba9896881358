#pragma once

#include <cstdint>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>

namespace Common {

enum class LogLevel : std::int32_t { Info = 0, Warning = 1, Error = 2 };

/// One diagnostic line on the standard error stream: a level prefix, the pieces, a newline. Where that stream
/// is the journal, the journal's priority comes first. The line is written whole, with one write, when the
/// object ends, so lines of two threads never mix. A piece is written as printable() gives it: what a client
/// sends cannot forge a second line or steer a terminal. Any thread may make lines; one object belongs to one
/// thread.
class LogLine {
public:
    explicit LogLine(LogLevel level)
        : level_(level) {}
    ~LogLine();
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;

    LogLine& operator<<(std::string_view text);
    /// Appends the exception's text; one without a text puts the error stream into the failed state.
    LogLine& operator<<(const std::exception& error);

private:
    LogLevel level_;
    std::string line_;
};

/// A line "INFO: ", "WARN: " or "ERROR: "; its pieces follow with <<.
inline LogLine logInfo() { return LogLine(LogLevel::Info); }
inline LogLine logWarning() { return LogLine(LogLevel::Warning); }
inline LogLine logError() { return LogLine(LogLevel::Error); }

/// Two lines at the same level about a caught failure: the caller's message, then the failure's own text.
void logFailure(LogLevel level, std::string_view message, const std::exception& error);

/// The path in double quotes, '"' and '\' escaped with a backslash, as log texts carry paths.
[[nodiscard]] std::string quoted(const std::filesystem::path& path);

} // namespace Common
