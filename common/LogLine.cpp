#include "common/LogLine.h"

#include "common/PrintableText.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace Common {

namespace {

// Whether standard error is a stream of the journal (JOURNAL_STREAM in systemd.exec(5)).
bool isJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

// With the priority for the journal first (sd-daemon(3)).
std::string_view prefixOf(LogLevel level) {
    constexpr std::array<std::string_view, 3> prefixes{"<6>INFO: ", "<4>WARN: ", "<3>ERROR: "};
    const auto index = static_cast<std::size_t>(level);
    if (index >= prefixes.size()) {
        return "";
    }
    return prefixes[index].substr(isJournal() ? 0 : std::strlen("<6>"));
}

} // namespace

LogLine::~LogLine() {
    try {
        line_ += '\n';
    } catch (const std::bad_alloc&) {
        line_.back() = '\n';
    }
    const bool usable = std::cerr.good();
    // The stream is unbuffered: one write() of it is one write(2).
    std::cerr.write(line_.data(), static_cast<std::streamsize>(line_.size()));
    if (usable) {
        std::cerr.clear(); // a failed write, for example on a full disk, must not suppress later lines
    }
}

LogLine& LogLine::operator<<(std::string_view text) noexcept try {
    if (line_.empty()) {
        line_ += prefixOf(level_);
    }
    line_ += printable(text);
    return *this;
} catch (...) {
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
