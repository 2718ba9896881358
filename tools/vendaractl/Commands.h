#pragma once

#include "core/zul/DatabaseLocation.h"
#include "tools/vendaractl/Output.h"

#include <string>
#include <vector>

namespace Vendaractl {

/// The program's exit statuses, a part of its interface.
enum ExitStatus : int { Success = 0, OperationFailed = 1, BadUsage = 2, NoService = 3 };

/// The options and arguments of a command.
struct Request {
    Format format = Format::Words;
    bool isDetached = false; ///< does not wait for the end
    bool follow = false;
    std::string authority;                                                      ///< of check
    std::string configuration = Core::ZUL::DatabaseLocation::configurationFile; ///< of check
    std::string systemRoot = "/";                                               ///< of check
    std::vector<std::string> arguments; ///< absolute paths of existing files, or identifiers
};

// Each command returns when it is done, `monitor` never. All throw what Vendara::Client throws, and
// OutputLost. `check` asks no service.
[[nodiscard]] ExitStatus check(const Request& request);
[[nodiscard]] ExitStatus install(const Request& request);
[[nodiscard]] ExitStatus remove(const Request& request);
[[nodiscard]] ExitStatus list(const Request& request);
[[nodiscard]] ExitStatus operations(const Request& request);
[[nodiscard]] ExitStatus wait(const Request& request);
[[nodiscard]] ExitStatus info(const Request& request);
[[nodiscard]] ExitStatus start(const Request& request);
[[nodiscard]] ExitStatus restart(const Request& request);
[[nodiscard]] ExitStatus monitor(const Request& request);

} // namespace Vendaractl
