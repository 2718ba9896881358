#pragma once

#include "common/UniqueFd.h"

#include <string>
#include <vector>

namespace Testbed {

/// Catches what this process writes to its standard error stream, as long as it lives.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// What has been written so far.
    [[nodiscard]] std::string text() const;
    [[nodiscard]] std::vector<std::string> lines() const;

private:
    Common::UniqueFd file_;
    Common::UniqueFd previous_;
};

} // namespace Testbed
