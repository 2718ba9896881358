#include "testbed/LogCapture.h"

#include <fcntl.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/stat.h>

namespace Testbed {

LogCapture::LogCapture()
    : file_(memfd_create("log", MFD_CLOEXEC))
    , previous_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) {
    dup2(file_.get(), STDERR_FILENO);
}

LogCapture::~LogCapture() { dup2(previous_.get(), STDERR_FILENO); }

std::string LogCapture::text() const {
    struct stat status {};
    fstat(file_.get(), &status);
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    const auto count = pread(file_.get(), text.data(), text.size(), 0);
    text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return text;
}

std::vector<std::string> LogCapture::lines() const {
    std::vector<std::string> lines;
    std::istringstream stream(text());
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

} // namespace Testbed
