#pragma once

#include "common/BusClient.h"
#include "common/UniqueFd.h"

#include <string>

namespace Devkit {

/// Tells when a well-known name appears on a bus. Owner's thread only.
class NameWatch {
public:
    /// Throws sdbus::Error, std::system_error.
    explicit NameWatch(Common::Bus bus);

    /// Becomes readable when some name has changed its owner since the last isOwned().
    [[nodiscard]] int descriptor() const { return changed_.get(); }

    /// Whether the name has an owner now. Throws sdbus::Error when the bus is gone.
    [[nodiscard]] bool isOwned(const std::string& name);

private:
    Common::UniqueFd changed_;
    // Last: its thread uses the descriptor.
    Common::BusClient bus_;
};

} // namespace Devkit
