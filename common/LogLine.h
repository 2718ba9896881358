#pragma once

#include <cstdint>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>

namespace Common {

enum class LogLevel : std::int32_t { Info = 0, Warning = 1, Error = 2 };

/// One diagnostic line on standard error: a level prefix, the pieces, a newline. If standard error is the
/// journal, the journal's priority prefix comes first. The destructor writes the line with one write, so
/// lines of different threads never mix. Pieces are escaped by printable(), so that a client's text cannot
/// forge a line or control a terminal. Any thread may make lines; one object belongs to one thread.
class LogLine {
public:
    explicit LogLine(LogLevel level)
        : level_(level) {}
    ~LogLine();
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;

    /// Without memory for the text the line is shorter: logging must not end what is logged.
    LogLine& operator<<(std::string_view text) noexcept;
    /// Appends the exception's text; if what() is null, the error stream gets the failed state.
    LogLine& operator<<(const std::exception& error);

private:
    LogLevel level_;
    std::string line_;
};

/// A line "INFO: ", "WARN: " or "ERROR: "; its pieces follow with <<.
inline LogLine logInfo() { return LogLine(LogLevel::Info); }
inline LogLine logWarning() { return LogLine(LogLevel::Warning); }
inline LogLine logError() { return LogLine(LogLevel::Error); }

/// Logs a caught failure in two lines of the same level: the message, then the exception's text.
void logFailure(LogLevel level, std::string_view message, const std::exception& error);

/// The path in double quotes for log lines, with '"' and '\' escaped by a backslash.
[[nodiscard]] std::string quoted(const std::filesystem::path& path);

} // namespace Common
