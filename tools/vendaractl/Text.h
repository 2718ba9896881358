#pragma once

#include "common/Error.h"
#include "core/Operation.h"

#include <string>
#include <string_view>

namespace Vendaractl {

/// The first characters of a printable text, so many that it takes no more than the given number of columns;
/// characters that take two columns are counted as two.
[[nodiscard]] std::string fitted(std::string_view text, std::size_t columns);

/// An operation's error code in words, without the number. Codes that are not assigned have words, too.
[[nodiscard]] std::string describe(Common::ErrorCode code);

/// "install", "upgrade" or "remove"; a number that is neither is given as a number.
[[nodiscard]] std::string nameOf(Core::OperationType type);
/// "queued", "in progress", "awaiting upgrade", "finished" or "failed".
[[nodiscard]] std::string nameOf(Core::OperationStatus status);

} // namespace Vendaractl
