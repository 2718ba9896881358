#include "testbed/LogCapture.h"

#include "testbed/Process.h"
#include "testbed/ScratchDirectory.h"

#include <fcntl.h>
#include <sstream>

namespace Testbed {

LogCapture::LogCapture()
    : file_(streamFile())
    , previous_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) {
    dup2(file_.get(), STDERR_FILENO);
}

LogCapture::~LogCapture() { dup2(previous_.get(), STDERR_FILENO); }

std::string LogCapture::text() const { return readFile(file_); }

std::vector<std::string> LogCapture::lines() const {
    std::vector<std::string> lines;
    std::istringstream stream(text());
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

} // namespace Testbed
