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
    bool ignoresAttributes = false;
    std::string authority; ///< of check
    std::string configuration = Core::ZUL::DatabaseLocation::configurationFile;
    std::string systemRoot = "/";
    std::string image;                  ///< takes the place of the two; empty: none
    std::string journal;                ///< directory with the journal of history; empty: that of the system
    std::vector<std::string> arguments; ///< absolute paths, of existing files but for owner, or identifiers
};

// Each command returns when it is done, `monitor` never. All throw what Vendara::Client throws, and
// OutputLost. `check` and those that look into the database or the journal ask no service.
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
