#include "common/bus/RemoteObject.h"

#include "common/Guard.h"
#include "common/Names.h"

namespace Common {

RemoteObject::RemoteObject(BusConnection& connection, const std::string& service,
                           const std::string& objectPath, std::string interface, const SignalSource* owner)
    : connection_(connection)
    , service_(service)
    , interface_(std::move(interface))
    , owner_(owner)
    , proxy_(sdbus::createProxy(connection.bus(), service, objectPath)) {}

// Empty for a name that nobody owns or whose owner is not followed.
std::string RemoteObject::expectedSender() const {
    const bool isUnique = service_.starts_with(':') || service_ == Names::MessageBus::service;
    return isUnique ? service_ : owner_ != nullptr ? owner_->owner() : std::string();
}

std::shared_ptr<RemoteObject::Answer> RemoteObject::send(const sdbus::MethodCall& message,
                                                         std::chrono::microseconds timeout) {
    auto answer = std::make_shared<Answer>(connection_);
    connection_.send([&] {
        proxy_->callMethod(
            message,
            [this, answer, called = expectedSender()](sdbus::MethodReply& reply, const sdbus::Error* error) {
                guarded("couldn't take a reply", [&] {
                    const auto sender = reply.getSender();
                    const bool isOfBus = sender == Names::MessageBus::service;
                    // The library does not check who replies. The owner at either time may: a service that is
                    // activated has none at first, one that ends gives its name up first.
                    const bool isKnown = owner_ != nullptr || !called.empty();
                    if (!isOfBus && isKnown && sender != called && sender != expectedSender()) {
                        answer->error = sdbus::Error("org.freedesktop.DBus.Error.AccessDenied",
                                                     "dropped a reply not sent by " + service_);
                    } else if (error != nullptr) {
                        if (isOfBus) {
                            connection_.reportIfLost(*error);
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
