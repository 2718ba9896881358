#pragma once

#include "common/Error.h"
#include "core/Operation.h"

#include <string>
#include <string_view>

namespace Vendaractl {

/// How many columns of a terminal a printable text takes; needs a locale of UTF-8.
[[nodiscard]] std::size_t columnsOf(std::string_view text);

/// The first characters of a printable text, so many that it takes no more than the given number of columns.
[[nodiscard]] std::string fitted(std::string_view text, std::size_t columns);

/// An operation's error code in words, without the number. Codes that are not assigned have words, too.
[[nodiscard]] std::string describe(Common::ErrorCode code);

/// "install", "upgrade" or "remove"; a number that is neither is given as a number.
[[nodiscard]] std::string nameOf(Core::OperationType type);
/// "queued", "in progress", "awaiting upgrade", "finished" or "failed".
[[nodiscard]] std::string nameOf(Core::OperationStatus status);

} // namespace Vendaractl
