#pragma once

#include "core/zul/DatabaseLocation.h"
#include "tools/vendaractl/Output.h"

#include <string>
#include <vector>

namespace Vendaractl {

/// The program's exit statuses; documented in vendaractl(1).
enum ExitStatus : int { Success = 0, OperationFailed = 1, BadUsage = 2, NoService = 3 };

/// The options and arguments of a command.
struct Request {
    Format format = Format::Text;
    bool isDetached = false; ///< returns without waiting for the operations
    bool follow = false;
    bool ignoresAttributes = false;
    std::string authority; ///< of check
    std::string configuration = Core::ZUL::DatabaseLocation::configurationFile;
    std::string systemRoot = "/";
    std::string image;   ///< used instead of configuration and systemRoot; empty: not used
    std::string journal; ///< directory with the journal for history; empty: the system's
    std::vector<std::string>
        arguments; ///< identifiers, or absolute paths (of existing files except for owner)
};

// `monitor` never returns. All throw what Vendara::Client throws, and OutputLost. `check` and the commands
// that read the database or the journal do not call the service.
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
[[nodiscard]] ExitStatus files(const Request& request);
[[nodiscard]] ExitStatus owner(const Request& request);
[[nodiscard]] ExitStatus size(const Request& request);
[[nodiscard]] ExitStatus verify(const Request& request);
[[nodiscard]] ExitStatus history(const Request& request);

} // namespace Vendaractl
