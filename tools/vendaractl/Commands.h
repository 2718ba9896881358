#pragma once

#include "tools/vendaractl/CommandLine.h"

namespace Vendaractl {

/// Carries out a request; returns when it is done, `monitor` never. Throws what ServiceClient throws, and
/// OutputLost.
[[nodiscard]] ExitStatus run(const Request& request);

} // namespace Vendaractl
