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

SignalSource::SignalSource(BusConnection& connection, std::string service, std::function<void()> appeared,
                           std::function<void()> vanished)
    : connection_(connection)
    , wanted_{std::move(service), {}}
    , appeared_(std::move(appeared))
    , vanished_(std::move(vanished)) {
    const auto ofName = matchFor(MessageBus::service, MessageBus::objectPath, MessageBus::interface,
                                 MessageBus::nameOwnerChanged) +
                        ",arg0='" + wanted_.service + "'";
    wanted_.matches.emplace_back(ofName, [this](sdbus::Message& message) {
        guarded("couldn't handle signal: " + MessageBus::nameOwnerChanged, [&] { takeOwner(message); });
    });
    subscriptions_ = wanted_.subscribeOn(connection.bus());
    connection_.sources_.push_back(this);
}

SignalSource::~SignalSource() { std::erase(connection_.sources_, this); }

void SignalSource::subscribe(const std::string& objectPath, const std::string& interface,
                             const std::string& signal, std::function<void(sdbus::Message&)> handler) {
    const auto match = matchFor(wanted_.service, objectPath, interface, signal);
    Handler guardedHandler = [this, signal, handler = std::move(handler)](sdbus::Message& message) {
        guarded("couldn't handle signal: " + signal, [&] {
            if (isFromOwner(message, signal)) {
                handler(message);
            }
        });
    };
    subscriptions_.slots.push_back(connection_.bus().addMatch(match, guardedHandler));
    wanted_.matches.emplace_back(match, std::move(guardedHandler));
}

// Subscribes first, so that a change of the owner is not missed.
SignalSource::Subscriptions SignalSource::Wanted::subscribeOn(sdbus::IConnection& bus) const {
    Subscriptions made;
    for (const auto& [match, handler] : matches) {
        made.slots.push_back(bus.addMatch(match, handler));
    }
    made.owner = findOwner(bus);
    return made;
}

void SignalSource::takeOwner(sdbus::Message& message) {
    if (message.getSender() != MessageBus::service) {
        return; // only the bus can send with this sender
    }
    std::string name;
    std::string before;
    message >> name >> before >> subscriptions_.owner;
    if (const auto& handler = owner().empty() ? vanished_ : appeared_) {
        handler();
    }
}

// An error reply does not show who sent it, so the bus's "no owner" counts only as a result.
std::string SignalSource::Wanted::findOwner(sdbus::IConnection& bus) const {
    while (BusConnection::ask<bool>(bus, MessageBus::nameHasOwner, service)) {
        try {
            return BusConnection::ask<std::string>(bus, MessageBus::getNameOwner, service);
        } catch (const sdbus::Error& error) {
            if (error.getName() != "org.freedesktop.DBus.Error.NameHasNoOwner") {
                throw;
            }
        }
    }
    return {};
}

bool SignalSource::isFromOwner(const sdbus::Message& message, const std::string& signal) {
    const auto sender = message.getSender();
    if (!sender.empty() && sender == owner()) {
        return true;
    }
    if (!std::exchange(hasLogged_, true)) {
        logWarning() << "dropped signals not sent by " << wanted_.service << ", first: " << signal << " from "
                     << sender;
    }
    return false;
}

} // namespace Common
