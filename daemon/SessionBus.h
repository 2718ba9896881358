#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace Daemon {

/// The session bus of the process. Its connections own the service's name.
class SessionBus {
public:
    /// The bus has ended, or another one has its address.
    class Gone : public std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    /// Opens the first connection; blocks. Throws sdbus::Error if there is no bus or the name has an owner.
    static std::shared_ptr<sdbus::IConnection> connect();
    /// Remembers the bus of a connection; blocks. Throws sdbus::Error for an error reply.
    explicit SessionBus(sdbus::IConnection& connection);

    /// Opens another connection after a loss; blocks until it owns the name, on any thread.
    /// Throws Gone, and sdbus::Error when a later attempt may succeed.
    [[nodiscard]] std::shared_ptr<sdbus::IConnection> reconnect() const;

private:
    std::string id_;
};

} // namespace Daemon
