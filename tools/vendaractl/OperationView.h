#pragma once

#include "client/Client.h"
#include "tools/vendaractl/Output.h"

namespace Vendaractl {

/// Shows the followed operations.
class OperationView : public Vendara::Listener {
public:
    /// The service refused a request.
    /// @param subject  the file or package
    virtual void refused(const std::string& subject, const std::string& message) = 0;
};

/// A line per operation with a progress indicator on a terminal, a line per status in a pipe, or JSON.
[[nodiscard]] std::unique_ptr<OperationView> makeOperationView(Format format);

} // namespace Vendaractl
