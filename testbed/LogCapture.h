#pragma once

#include "common/UniqueFd.h"

#include <string>
#include <vector>

namespace Testbed {

/// Captures this process's standard error stream during its lifetime.
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
