#include "common/bus/RemoteObject.h"

#include "common/Guard.h"
#include "common/Names.h"

namespace Common {

RemoteObject::RemoteObject(BusConnection& connection, const std::string& service,
                           const std::string& objectPath, std::string interface)
    : connection_(connection)
    , interface_(std::move(interface))
    , proxy_(sdbus::createProxy(connection.bus(), service, objectPath)) {}

std::shared_ptr<RemoteObject::Answer> RemoteObject::send(const sdbus::MethodCall& message,
                                                         std::chrono::microseconds timeout) {
    auto answer = std::make_shared<Answer>(connection_);
    connection_.send([&] {
        proxy_->callMethod(
            message,
            [answer, &connection = connection_](sdbus::MethodReply& reply, const sdbus::Error* error) {
                guarded("couldn't take a reply", [&] {
                    if (error != nullptr) {
                        if (reply.getSender() == Names::MessageBus::service) {
                            connection.reportIfLost(*error);
                        }
                        answer->error = *error;
                    } else {
                        answer->reply = reply;
                    }
                });
                answer->arrived.set();
            },
            static_cast<std::uint64_t>(timeout.count()));
    });
    return answer;
}

} // namespace Common
