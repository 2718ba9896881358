#include "common/bus/RemoteObject.h"

#include "common/Guard.h"
#include "common/Names.h"

namespace Common {

RemoteObject::RemoteObject(BusConnection& connection, std::string service, std::string objectPath,
                           std::string interface, const SignalSource* owner)
    : connection_(connection)
    , service_(std::move(service))
    , objectPath_(std::move(objectPath))
    , interface_(std::move(interface))
    , owner_(owner) {
    static_cast<void>(proxy());
}

sdbus::IProxy& RemoteObject::proxy() {
    if (bus_ != connection_.sharedBus()) {
        proxy_.reset();
        bus_ = connection_.sharedBus();
        proxy_ = sdbus::createProxy(*bus_, service_, objectPath_);
    }
    return *proxy_;
}

// Empty if the name has no owner or its owner is not followed.
std::string RemoteObject::expectedSender() const {
    const bool isUnique = service_.starts_with(':') || service_ == Names::MessageBus::service;
    return isUnique ? service_ : owner_ != nullptr ? owner_->owner() : std::string();
}

std::shared_ptr<RemoteObject::Call> RemoteObject::send(const sdbus::MethodCall& message,
                                                       std::chrono::microseconds timeout) {
    auto call = std::make_shared<Call>(connection_);
    connection_.requireConnected(call->bus);
    const auto take = [this, call, called = expectedSender()](sdbus::MethodReply& reply,
                                                              const sdbus::Error* error) {
        guarded("couldn't take a reply", [&] { this->take(*call, called, reply, error); });
        if (connection_.isConnected(call->bus)) { // otherwise the connection ends its calls
            connection_.calls_.erase(call);
            call->ended.set();
        }
    };
    connection_.calls_.insert(call);
    try {
        connection_.send(
            [&] { proxy_->callMethod(message, take, static_cast<std::uint64_t>(timeout.count())); });
    } catch (const sdbus::Error&) {
        if (connection_.isConnected(call->bus)) {
            connection_.calls_.erase(call);
            throw;
        }
    }
    return call;
}

// The library does not check who replies. The owner at either time may: a service that is activated has none
// at first, one that ends gives its name up first.
void RemoteObject::take(Call& call, const std::string& called, sdbus::MethodReply& reply,
                        const sdbus::Error* error) {
    const auto sender = reply.getSender();
    const bool isOfBus = sender == Names::MessageBus::service;
    const bool isKnown = owner_ != nullptr || !called.empty();
    if (!isOfBus && isKnown && sender != called && sender != expectedSender()) {
        call.error = sdbus::Error("org.freedesktop.DBus.Error.AccessDenied",
                                  "dropped a reply not sent by " + service_);
    } else if (error != nullptr) {
        call.error = *error;
        if (isOfBus) {
            connection_.reportIfLost(*error);
        }
    } else {
        call.reply = reply;
    }
}

} // namespace Common
