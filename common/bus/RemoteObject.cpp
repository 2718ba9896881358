#include "common/bus/RemoteObject.h"

#include "common/Guard.h"

namespace Common {

RemoteObject::RemoteObject(BusConnection& connection, const std::string& service,
                           const std::string& objectPath, std::string interface)
    : connection_(connection)
    , interface_(std::move(interface))
    , proxy_(sdbus::createProxy(connection.bus(), service, objectPath)) {}

std::shared_ptr<RemoteObject::Answer> RemoteObject::send(const sdbus::MethodCall& message,
                                                         std::chrono::microseconds timeout) {
    const auto answer = std::make_shared<Answer>(connection_);
    try {
        proxy_->callMethod(
            message,
            [answer, &connection = connection_](sdbus::MethodReply& reply, const sdbus::Error* error) {
                guarded("couldn't take a reply", [&] {
                    if (error != nullptr) {
                        static_cast<void>(connection.isLoss(*error));
                        answer->error = *error;
                    } else {
                        answer->reply = reply;
                    }
                });
                answer->arrived.set();
            },
            static_cast<std::uint64_t>(timeout.count()));
    } catch (const sdbus::Error& error) {
        static_cast<void>(connection_.isLoss(error));
        throw;
    }
    connection_.sent();
    return answer;
}

} // namespace Common
