#pragma once

#include "tools/vendaractl/Output.h"

#include <optional>
#include <string>
#include <vector>

namespace Vendaractl {

enum class Command { Install, Remove, List, Operations, Info, Start, Restart, Monitor };

/// The program's exit statuses, a part of its interface.
enum ExitStatus : int { Success = 0, OperationFailed = 1, BadUsage = 2, NoService = 3 };

/// What the command line asks for.
struct Request {
    Command command;
    Format format = Format::Words;
    bool wait = true;
    std::vector<std::string> arguments; ///< absolute paths of existing files, or package identifiers
};

/// Reads the command line. Help and version go to standard output, what is wrong to standard error or, as
/// JSON, to standard output. Throws OutputLost.
/// @param status  where there is no request: what the program is to end with
[[nodiscard]] std::optional<Request> parseCommandLine(int argc, const char* const* argv, ExitStatus& status);

} // namespace Vendaractl
