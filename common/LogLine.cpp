#include "common/LogLine.h"

#include "common/PrintableText.h"

#include <iomanip>
#include <iostream>
#include <sstream>

namespace Common {

namespace {

std::string_view prefixOf(LogLevel level) {
    switch (level) {
    case LogLevel::Info:
        return "INFO: ";
    case LogLevel::Warning:
        return "WARN: ";
    case LogLevel::Error:
        return "ERROR: ";
    }
    return "";
}

} // namespace

LogLine::~LogLine() {
    if (endWithNewline_) {
        line_ += '\n';
    }
    const bool usable = std::cerr.good();
    // The stream is unbuffered: one write() of it is one write(2).
    std::cerr.write(line_.data(), static_cast<std::streamsize>(line_.size()));
    if (usable) {
        std::cerr.clear(); // a line that a full disk did not take is no reason to drop the next
    }
}

LogLine& LogLine::operator<<(std::string_view text) {
    if (prefixPending_) {
        line_ += prefixOf(level_);
        prefixPending_ = false;
    }
    line_ += printable(text);
    return *this;
}

LogLine& LogLine::operator<<(const std::exception& error) {
    const char* text = error.what();
    if (text == nullptr) {
        std::cerr.setstate(std::ios::badbit);
        return *this;
    }
    return *this << std::string_view(text);
}

void logFailure(LogLevel level, std::string_view message, const std::exception& error) {
    LogLine(level) << message;
    LogLine(level) << error;
}

std::string quoted(const std::filesystem::path& path) {
    std::ostringstream text;
    text << std::quoted(path.native());
    return text.str();
}

} // namespace Common
