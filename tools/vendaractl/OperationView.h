#pragma once

#include "tools/vendaractl/Output.h"

#include <memory>
#include <string>

namespace Vendaractl {

/// Shows operations while they are followed.
class OperationView {
public:
    virtual ~OperationView() = default;

    /// An operation has a status that it had not before.
    virtual void changed(const Common::OperationRecord& operation) = 0;
    /// The service does not know the operation any more, and did not tell how it ended.
    virtual void lost(const Common::OperationRecord& operation) = 0;
    /// The end of an operation that an earlier run of the program did not wait for.
    virtual void earlier(const Common::OperationRecord& operation) = 0;
    /// The service refused to begin an operation.
    /// @param subject  the file or package
    virtual void refused(const std::string& subject, const std::string& message) = 0;
    /// Time has passed: whatever moves on the screen moves.
    virtual void tick() {}
};

/// A line per operation with a progress indicator on a terminal, a line per status in a pipe, JSON on
/// request.
[[nodiscard]] std::unique_ptr<OperationView> makeOperationView(Format format);

} // namespace Vendaractl
