#include "tools/vendaractl/ServiceClient.h"

#include "common/LogLine.h"
#include "common/Names.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <optional>
#include <poll.h>
#include <utility>

namespace Vendaractl {

namespace Own = Common::Names::Vendara;
namespace MessageBus = Common::Names::MessageBus;

namespace {

// The service answers when the package manager has answered it, which may take that long.
constexpr std::chrono::microseconds callLimit = std::chrono::minutes(16);

// Every error reply of the service has its one error name; what the bus says in its place means that there is
// no service.
bool tellsAbsence(const sdbus::Error& error) {
    const std::string& name = error.getName();
    for (const char* absence :
         {"ServiceUnknown", "NameHasNoOwner", "NoReply", "Disconnected", "NoServer", "TimedOut", "Timeout"}) {
        if (name == std::string("org.freedesktop.DBus.Error.") + absence) {
            return true;
        }
    }
    return name.starts_with("org.freedesktop.DBus.Error.Spawn.");
}

bool isSpawnFailure(const sdbus::Error& error) {
    return error.getName().starts_with("org.freedesktop.DBus.Error.Spawn.Child");
}

template<typename Result>
Result resultOf(sdbus::MethodReply&& reply) {
    try {
        Result result;
        reply >> result;
        return result;
    } catch (const sdbus::Error& error) {
        throw CallRefused("unexpected reply of the service: " + error.getMessage());
    }
}

Properties propertiesFrom(sdbus::MethodReply&& reply) {
    const auto map = resultOf<std::map<std::string, sdbus::Variant>>(std::move(reply));
    try {
        Properties properties{map.at(Own::architecture).get<std::string>(),
                              map.at(Own::quenraVersion).get<std::string>(),
                              map.at(Own::operations).get<std::vector<Common::OperationRecord>>(),
                              map.at(Own::completedOperations).get<std::vector<Common::OperationRecord>>(),
                              map.at(Own::packages).get<std::vector<Common::PackageRecord>>()};
        // A failed operation stays among the others until the next one begins.
        const auto& completed = properties.completedOperations;
        const auto toldTwice = [&](const auto& operation) {
            return std::find(completed.begin(), completed.end(), operation) != completed.end();
        };
        properties.operations.erase(
            std::remove_if(properties.operations.begin(), properties.operations.end(), toldTwice),
            properties.operations.end());
        return properties;
    } catch (const sdbus::Error& error) {
        throw CallRefused("unexpected properties of the service: " + error.getMessage());
    } catch (const std::out_of_range&) {
        throw CallRefused("the service's properties are incomplete");
    }
}

} // namespace

// The answer to one call; shared with the bus library, which may outlive the wait for it.
struct ServiceClient::Call {
    std::optional<sdbus::MethodReply> reply;
    std::optional<sdbus::Error> error;
};

ServiceClient::ServiceClient(Listeners listeners)
    : listeners_(std::move(listeners)) {
    try {
        connection_ = sdbus::createSessionBusConnection();
        bus_ = sdbus::createProxy(*connection_, MessageBus::service, MessageBus::objectPath);
        service_ = sdbus::createProxy(*connection_, Own::service, Own::objectPath);
        subscribe();
    } catch (const sdbus::Error& error) {
        throw ServiceAbsent("there is no session bus: " + error.getMessage());
    }
    startService();
}

ServiceClient::~ServiceClient() {
    for (const auto& proxy : {service_.get(), bus_.get()}) {
        if (proxy != nullptr) {
            proxy->unregister();
        }
    }
}

Common::OperationRecord ServiceClient::install(const std::string& path) {
    return resultOf<Common::OperationRecord>(call(*service_, Own::interface, Own::install, path));
}

Common::OperationRecord ServiceClient::remove(const std::string& packageId) {
    return resultOf<Common::OperationRecord>(call(*service_, Own::interface, Own::remove, packageId));
}

void ServiceClient::start(const std::string& packageId) {
    call(*service_, Own::interface, Own::start, packageId);
}

void ServiceClient::restart(const std::string& packageId) {
    call(*service_, Own::interface, Own::restart, packageId);
}

Properties ServiceClient::properties() {
    return propertiesFrom(call(*service_, Own::interface, Own::getAllProperties));
}

void ServiceClient::askProperties(Answer answer) {
    try {
        service_->callMethod(
            service_->createMethodCall(Own::interface, Own::getAllProperties),
            [this, answer = std::move(answer)](sdbus::MethodReply& reply, const sdbus::Error* error) {
                guarded([&] {
                    std::optional<Properties> properties;
                    try {
                        if (error == nullptr) {
                            properties = propertiesFrom(sdbus::MethodReply(reply));
                        }
                    } catch (const CallRefused&) {
                        // The answer is that it could not tell.
                    }
                    answer(properties ? &*properties : nullptr);
                });
            },
            callLimit);
    } catch (const sdbus::Error& error) {
        fail(error);
    }
}

void ServiceClient::process(std::chrono::milliseconds limit) {
    try {
        bool handled = false;
        while (!failure_ && connection_->processPendingRequest()) {
            handled = true;
        }
        if (failure_) {
            std::rethrow_exception(std::exchange(failure_, nullptr));
        }
        if (handled) {
            return;
        }
        const auto bus = connection_->getEventLoopPollData();
        const int busLimit = bus.getPollTimeout();
        int wait = static_cast<int>(limit.count());
        if (wait < 0 || (busLimit >= 0 && busLimit < wait)) {
            wait = busLimit;
        }
        std::array<pollfd, 2> descriptors{pollfd{bus.fd, bus.events, 0},
                                          pollfd{signals_.descriptor(), POLLIN, 0}};
        if (poll(descriptors.data(), descriptors.size(), wait) < 0 && errno != EINTR) {
            throw sdbus::createError(errno, "couldn't wait for the bus");
        }
    } catch (const sdbus::Error& error) {
        throw ServiceAbsent("lost the connection to the session bus: " + error.getMessage());
    }
    signals_.check();
}

void ServiceClient::fail(const sdbus::Error& error) const {
    const bool noReply = error.getName() == "org.freedesktop.DBus.Error.NoReply";
    if (isSpawnFailure(error) || (noReply && started_ && !answered_)) {
        throw ServiceAbsent("the service ended while it started; its log says why");
    }
    if (noReply) {
        throw ServiceAbsent("the service ended before it answered");
    }
    if (tellsAbsence(error)) {
        throw ServiceAbsent(error.getMessage());
    }
    throw CallRefused(error.getMessage());
}

void ServiceClient::subscribe() {
    connection_->addMatch(
        "type='signal',sender='" + MessageBus::service + "',path='" + MessageBus::objectPath +
            "',interface='" + MessageBus::interface + "',member='" + MessageBus::nameOwnerChanged +
            "',arg0='" + Own::service + "'",
        [this](sdbus::Message& message) {
            if (isFrom(MessageBus::service, message)) {
                guarded([&] {
                    std::string name;
                    std::string previous;
                    std::string owner;
                    message >> name >> previous >> owner;
                    ownerChanged(owner);
                });
            }
        },
        sdbus::floating_slot);
    onSignal(Own::operationStatusChanged, listeners_.operationChanged);
    onSignal(Own::packageInstalled, listeners_.packageInstalled);
    onSignal(Own::packageUpgraded, listeners_.packageUpgraded);
    onSignal(Own::packageRemoved, listeners_.packageRemoved);
    service_->finishRegistration();
}

// The owner is known before the first request is made, so no signal that concerns one is missed for it. A
// service that somebody started by hand may have no activation file: the bus is asked to start nothing then.
void ServiceClient::startService() {
    const auto askOwner = [this] {
        return resultOf<std::string>(
            call(*bus_, MessageBus::interface, MessageBus::getNameOwner, Own::service));
    };
    try {
        owner_ = askOwner();
    } catch (const ServiceAbsent&) {
        started_ = true;
        try {
            call(*bus_, MessageBus::interface, MessageBus::startServiceByName, Own::service,
                 std::uint32_t{0});
        } catch (const CallRefused& error) {
            // By the bus: the unit may be masked, for example.
            throw ServiceAbsent(error.what());
        }
        owner_ = askOwner();
    }
}

void ServiceClient::ownerChanged(const std::string& owner) {
    const bool announce = !owner_.empty() || !owner.empty();
    owner_ = owner;
    if (announce && listeners_.serviceChanged) {
        listeners_.serviceChanged(!owner.empty());
    }
}

// Any program of the session may send this connection a signal of any name: the bus checks no sender of a
// signal that is addressed to one connection, and neither does the bus library.
bool ServiceClient::isFrom(const std::string& sender, const sdbus::Message& message) {
    const bool genuine = message.getSender() == sender;
    // Before the first answer of the bus the owner is not known yet.
    if (!genuine && !sender.empty() && !std::exchange(forgeryReported_, true)) {
        Common::logWarning() << "dropped a signal " << message.getMemberName() << " from "
                             << message.getSender() << ", which is not the service";
    }
    return genuine;
}

template<typename Argument>
void ServiceClient::onSignal(const std::string& signal, std::function<void(const Argument&)> listener) {
    if (!listener) {
        return;
    }
    const auto handler = [this, listener = std::move(listener)](sdbus::Signal& message) {
        if (isFrom(owner_, message)) {
            guarded([&] {
                Argument argument;
                message >> argument;
                listener(argument);
            });
        }
    };
    service_->registerSignalHandler(Own::interface, signal, handler);
}

template<typename... Arguments>
sdbus::MethodReply ServiceClient::call(sdbus::IProxy& proxy, const std::string& interface,
                                       const std::string& method, const Arguments&... arguments) {
    try {
        auto message = proxy.createMethodCall(interface, method);
        static_cast<void>((message << ... << arguments));
        return await(proxy, message);
    } catch (const sdbus::Error& error) {
        fail(error);
    }
}

sdbus::MethodReply ServiceClient::await(sdbus::IProxy& proxy, const sdbus::MethodCall& message) {
    const auto pending = std::make_shared<Call>();
    proxy.callMethod(
        message,
        [pending](sdbus::MethodReply& reply, const sdbus::Error* error) {
            if (error != nullptr) {
                pending->error = *error;
            } else {
                pending->reply = reply;
            }
        },
        callLimit);
    while (!pending->reply && !pending->error) {
        process(std::chrono::milliseconds(-1));
    }
    if (pending->error) {
        fail(*pending->error);
    }
    answered_ = answered_ || &proxy == service_.get();
    return *pending->reply;
}

// Everything that leaves a handler would cross the bus library's C frames; process() throws it afterwards.
void ServiceClient::guarded(const std::function<void()>& handler) noexcept {
    try {
        handler();
    } catch (const sdbus::Error& error) {
        Common::logFailure(Common::LogLevel::Warning, "couldn't read a signal of the service", error);
    } catch (...) {
        failure_ = std::current_exception();
    }
}

} // namespace Vendaractl
