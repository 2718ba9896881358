#pragma once

#include "common/ErrorCode.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace Common {

/// The exception type of the project: a code and a text for the log. Bus errors are converted to it and from
/// it only at the edges.
class Error : public std::runtime_error {
public:
    Error(ErrorCode code, const std::string& message)
        : std::runtime_error(message)
        , code_(code) {}

    [[nodiscard]] ErrorCode code() const noexcept { return code_; }

private:
    ErrorCode code_;
};

/// The code of a package manager error name. Any thread.
/// @param name  complete D-Bus error name, compared exactly
/// @return None for an empty name, Internal for a name that is not in the table
[[nodiscard]] ErrorCode errorCodeOf(std::string_view name) noexcept;

/// The package manager error name for a code, the inverse of errorCodeOf(). Any thread.
/// @return the name; Internal's for a code without a row
[[nodiscard]] std::string errorNameOf(ErrorCode code);

} // namespace Common
