#include "common/bus/SignalSource.h"

#include "common/Guard.h"
#include "common/Names.h"

namespace Common {

namespace MessageBus = Names::MessageBus;

namespace {

std::string matchFor(const std::string& sender, const std::string& objectPath, const std::string& interface,
                     const std::string& signal) {
    return "type='signal',sender='" + sender + "',path='" + objectPath + "',interface='" + interface +
           "',member='" + signal + "'";
}

} // namespace

SignalSource::SignalSource(sdbus::IConnection& connection, std::string service,
                           std::function<void()> appeared, std::function<void()> vanished)
    : connection_(connection)
    , service_(std::move(service))
    , appeared_(std::move(appeared))
    , vanished_(std::move(vanished)) {
    followOwner();
    findOwner();
}

void SignalSource::subscribe(const std::string& objectPath, const std::string& interface,
                             const std::string& signal, std::function<void(sdbus::Message&)> handler) {
    slots_.push_back(
        connection_.addMatch(matchFor(service_, objectPath, interface, signal),
                             [this, signal, handler = std::move(handler)](sdbus::Message& message) {
                                 guarded("couldn't handle signal: " + signal, [&] {
                                     if (isFromOwner(message, signal)) {
                                         handler(message);
                                     }
                                 });
                             }));
}

void SignalSource::followOwner() {
    const auto match = matchFor(MessageBus::service, MessageBus::objectPath, MessageBus::interface,
                                MessageBus::nameOwnerChanged) +
                       ",arg0='" + service_ + "'";
    slots_.push_back(connection_.addMatch(match, [this](sdbus::Message& message) {
        guarded("couldn't handle signal: " + MessageBus::nameOwnerChanged, [&] {
            if (message.getSender() != MessageBus::service) {
                return; // the bus alone sends as itself
            }
            std::string name;
            std::string before;
            message >> name >> before >> owner_;
            if (const auto& handler = owner_.empty() ? vanished_ : appeared_) {
                handler();
            }
        });
    }));
}

void SignalSource::findOwner() {
    try {
        const auto bus = sdbus::createProxy(connection_, MessageBus::service, MessageBus::objectPath);
        auto question = bus->createMethodCall(MessageBus::interface, MessageBus::getNameOwner);
        question << service_;
        auto reply = bus->callMethod(question);
        if (reply.getSender() != MessageBus::service) {
            throw sdbus::Error("org.freedesktop.DBus.Error.AccessDenied", "the reply is not from the bus");
        }
        reply >> owner_;
    } catch (const sdbus::Error& error) {
        if (error.getName() != "org.freedesktop.DBus.Error.NameHasNoOwner") {
            throw;
        }
    }
}

bool SignalSource::isFromOwner(const sdbus::Message& message, const std::string& signal) {
    const auto sender = message.getSender();
    if (!sender.empty() && sender == owner_) {
        return true;
    }
    if (!std::exchange(hasLogged_, true)) {
        logWarning() << "dropped signals not sent by " << service_ << ", first: " << signal << " from "
                     << sender;
    }
    return false;
}

} // namespace Common
