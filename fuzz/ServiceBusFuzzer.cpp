#include "common/Names.h"
#include "common/bus/Loop.h"
#include "daemon/SessionBus.h"
#include "daemon/VendaraDbusInterface.h"
#include "fuzz/BusMessages.h"
#include "testbed/CraftedPackage.h"
#include "testbed/PrivateBus.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <poll.h>
#include <sys/socket.h>

namespace {

namespace Names = Common::Names;
using Fuzz::Connection;
using Fuzz::Message;
using Fuzz::require;
using Fuzz::requireDone;
using Clock = std::chrono::steady_clock;

struct Signal {
    const char* path;
    const char* interface;
    const char* name;
    const char* types;
};

const std::array<Signal, 6> signals{
    {{"/norvane/ZUL", "norvane.ZUL", "PackageInstalled", "a{ss}"},
     {"/norvane/ZUL", "norvane.ZUL", "PackageUpgraded", "a{ss}"},
     {"/norvane/ZUL", "norvane.ZUL", "PackageRemoved", "s"},
     {"/norvane/RuntimeManager/Control1", "norvane.RuntimeManager.Control1", "Terminated", "s"},
     {"/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged", "sss"},
     {"/norvane/Vendara", "norvane.Vendara", "OperationStatusChanged", "(ssiii)"}}};

// Unauthorised senders use this identifier, and only they do: texts from the input, unless from a list, begin
// with "x".
constexpr auto forgedId = "forged";
constexpr auto exampleId = "com.example.app";

/// Well-formed values about a package.
void writeValid(sd_bus_message* message, std::string_view types, const char* id) {
    const auto writePackage = [&] {
        sd_bus_message_append(message, "a{ss}", 4, "general.id", id, "general.version", "1-1",
                              "certificate.id", "7", "certificate.subgroup", "apps");
    };
    if (types == "s") {
        sd_bus_message_append(message, "s", id);
    } else if (types == "ss") {
        sd_bus_message_append(message, "ss", id, "user");
    } else if (types == "a{ss}") {
        writePackage();
    } else if (types == "aa{ss}") {
        sd_bus_message_open_container(message, 'a', "a{ss}");
        writePackage();
        sd_bus_message_close_container(message);
    }
}

class Round;

/// What all rounds share: buses, the peers' connections, a stranger's on each bus and a package file.
struct World {
    World();
    Testbed::ScratchDirectory scratch;
    std::string package = scratch.path() / "package.rpm";
    Testbed::PrivateBuses buses;
    Connection systemPeers{"DBUS_SYSTEM_BUS_ADDRESS"};
    Connection sessionPeers{"DBUS_SESSION_BUS_ADDRESS"};
    Connection systemStranger{"DBUS_SYSTEM_BUS_ADDRESS"};
    Connection client{"DBUS_SESSION_BUS_ADDRESS"}; ///< also a stranger
    std::array<Connection*, 4> all{&systemPeers, &sessionPeers, &systemStranger, &client};
    Round* round = nullptr;
};

World& world() {
    static World instance;
    return instance;
}

/// The service with its peers, for one input.
class Round {
public:
    explicit Round(FuzzedDataProvider& input)
        : input_(input)
        , values_(input) {
        world().round = this;
        session_.reconnectWith([this] { return bus_.reconnect(); }, [this] { service_.exportAnew(); });
        takeNames();
    }
    ~Round() { world().round = nullptr; }
    Round(const Round&) = delete;
    Round& operator=(const Round&) = delete;

    void play() {
        for (int steps = 0; steps < 40 && input_.remaining_bytes() > 0; ++steps) {
            step();
            settle(input_.ConsumeIntegralInRange(0, 3));
        }
        finish();
    }

    /// A peer is called.
    void answer(sd_bus_message* call) {
        if (!isWellBehaved_ && input_.ConsumeBool()) {
            reply(call, input_.ConsumeBool(), world().client.get()); // a stranger, too
        }
        const int kind = isWellBehaved_ ? 0 : input_.ConsumeIntegralInRange(0, 7);
        if (kind == 7) {
            held_.emplace_back(sd_bus_message_ref(call));
        } else if (kind == 6) {
            sd_bus_reply_method_errorf(call, errorName().c_str(), "%s", values_.text().c_str());
        } else {
            reply(call, kind < 3);
        }
    }

private:
    static void takeNames() {
        sd_bus_request_name(world().systemPeers.get(), Names::Zul::service.c_str(), 0);
        sd_bus_request_name(world().sessionPeers.get(), Names::RuntimeManager::service.c_str(), 0);
        sd_bus_request_name(world().sessionPeers.get(), Names::Identification::service.c_str(), 0);
    }

    void step() {
        switch (input_.ConsumeIntegralInRange(-1, 5)) {
        case -1:
            closeSession();
            break;
        case 0:
            restartPeer();
            break;
        case 1:
            sendSignal(input_.ConsumeBool() ? world().systemPeers : world().sessionPeers, false);
            break;
        case 2:
            sendSignal(input_.ConsumeBool() ? world().systemStranger : world().client, true);
            break;
        default:
            callService();
        }
    }

    /// Simulates the bus closing the connection.
    void closeSession() {
        if (session_.isConnected(session_.sharedBus())) {
            closed_ = session_.sharedBus();
            shutdown(closed_->getEventLoopPollData().fd, SHUT_RDWR);
        }
    }

    void write(sd_bus_message* message, const char* types) {
        if (input_.ConsumeBool()) {
            writeValid(message, types, exampleId);
        } else {
            values_.write(message, types);
        }
    }

    void callService() {
        constexpr std::array methods{"Install", "Remove", "Start", "Restart", "GetAllProperties"};
        const std::string method = input_.PickValueInArray(methods);
        Message call(newCall(method.c_str()));
        if (method == "Install" && input_.ConsumeBool()) {
            sd_bus_message_append(call.get(), "s", world().package.c_str());
        } else {
            write(call.get(), method == "GetAllProperties" ? "" : "s");
        }
        sd_bus_send(world().client.get(), call.get(), nullptr);
    }

    static sd_bus_message* newCall(const char* method) {
        sd_bus_message* call = nullptr;
        requireDone(sd_bus_message_new_method_call(
            world().client.get(), &call, Names::Vendara::service.c_str(), Names::Vendara::objectPath.c_str(),
            Names::Vendara::interface.c_str(), method));
        return call;
    }

    void sendSignal(Connection& from, bool isForged) {
        const auto& signal = input_.PickValueInArray(signals);
        sd_bus_message* made = nullptr;
        requireDone(sd_bus_message_new_signal(from.get(), &made, signal.path, signal.interface, signal.name));
        const Message message(made);
        if (isForged && input_.ConsumeBool()) {
            writeValid(made, signal.types, forgedId);
        } else if (!isForged || std::string_view(signal.interface) != "norvane.ZUL") {
            write(made, signal.types);
        }
        const bool isOnSession = &from == &world().client || &from == &world().sessionPeers;
        if (isForged || input_.ConsumeBool()) {
            sd_bus_message_set_destination(made, isOnSession ? Names::Vendara::service.c_str()
                                                             : systemName().c_str());
        }
        sd_bus_send(from.get(), made, nullptr);
    }

    /// The unique name of the service's connection to the system bus.
    const std::string& systemName() {
        if (systemName_.empty()) {
            sd_bus_message* names = nullptr;
            requireDone(sd_bus_call_method(world().systemStranger.get(), "org.freedesktop.DBus",
                                           "/org/freedesktop/DBus", "org.freedesktop.DBus", "ListNames",
                                           nullptr, &names, ""));
            const Message owner(names);
            const char* name = nullptr;
            sd_bus_message_enter_container(names, 'a', "s");
            while (sd_bus_message_read_basic(names, 's', &name) > 0) {
                const bool isOurs =
                    isNameOf(world().systemPeers, name) || isNameOf(world().systemStranger, name);
                systemName_ = *name == ':' && !isOurs ? name : systemName_;
            }
        }
        return systemName_;
    }

    static bool isNameOf(const Connection& connection, std::string_view name) {
        const char* own = nullptr;
        return sd_bus_get_unique_name(connection.get(), &own) >= 0 && name == own;
    }

    /// A peer leaves the bus, or comes back; a stranger takes its name meanwhile.
    void restartPeer() {
        const bool isZul = input_.ConsumeBool();
        const auto& name = isZul                  ? Names::Zul::service
                           : input_.ConsumeBool() ? Names::RuntimeManager::service
                                                  : Names::Identification::service;
        auto* peer = (isZul ? world().systemPeers : world().sessionPeers).get();
        auto* stranger = (isZul ? world().systemStranger : world().client).get();
        sd_bus_release_name(peer, name.c_str());
        if (input_.ConsumeBool()) {
            sd_bus_request_name(stranger, name.c_str(), 0);
            settle(1);
            sd_bus_release_name(stranger, name.c_str());
        }
        if (input_.ConsumeBool()) {
            takeNames();
        }
    }

    std::string errorName() {
        const auto name = values_.text();
        return sd_bus_interface_name_is_valid(name.c_str()) > 0 ? name : "norvane.ZUL.Error.Internal";
    }

    void reply(sd_bus_message* call, bool isHonest) { reply(call, isHonest, sd_bus_message_get_bus(call)); }
    void reply(sd_bus_message* call, bool isHonest, sd_bus* from) {
        const std::string method = sd_bus_message_get_member(call);
        const auto* types = method == Names::Zul::getPackageList                 ? "aa{ss}"
                            : method == Names::Identification::identifyByBusName ? "ss"
                                                                                 : "";
        sd_bus_message* made = nullptr;
        requireDone(sd_bus_message_new_method_return(call, &made));
        const Message message(made);
        if (isHonest) {
            writeValid(made, types, exampleId);
        } else {
            values_.write(made, types);
        }
        sd_bus_send(from, made, nullptr);
    }

    bool handle() {
        loop_.context().restart();
        bool isBusy = loop_.context().poll() > 0;
        for (auto* connection : world().all) {
            isBusy = connection->process() || isBusy;
        }
        return isBusy;
    }

    /// Handles messages until none has arrived for this number of polls.
    void settle(int whiles) {
        for (int idle = 0; idle <= whiles; idle = handle() ? 0 : idle + 1) {
            waitForPeers();
        }
    }

    static void waitForPeers() {
        std::array<pollfd, 4> descriptors{};
        for (std::size_t place = 0; place < descriptors.size(); ++place) {
            descriptors[place] = {sd_bus_get_fd(world().all[place]->get()), POLLIN, 0};
        }
        constexpr timespec limit{0, 50'000};
        ppoll(descriptors.data(), descriptors.size(), &limit, nullptr);
    }

    /// Whatever happened before, the service works with well-behaved peers.
    void finish() {
        isWellBehaved_ = true;
        takeNames();
        while (session_.sharedBus() == closed_) {
            settle(0);
        }
        for (const auto& call : held_) {
            reply(call.get(), true);
        }
        // On a machine too busy for requestLimit the result has no meaning.
        for (auto asked = Clock::now(); !ask(); asked = Clock::now()) {
            require(Clock::now() - asked > Daemon::VendaraDbusInterface::requestLimit / 2);
        }
    }

    /// @return whether the service answered with its properties
    bool ask() {
        enum { Waiting, Refused, Answered } state = Waiting;
        const auto note = [](sd_bus_message* answer, void* result, sd_bus_error*) {
            const bool isAnswer = sd_bus_message_is_method_error(answer, nullptr) == 0 &&
                                  sd_bus_message_has_signature(answer, "a{sv}") > 0;
            *static_cast<decltype(state)*>(result) = isAnswer ? Answered : Refused;
            return 1;
        };
        const Message call(newCall("GetAllProperties"));
        sd_bus_slot* slot = nullptr;
        requireDone(sd_bus_call_async(world().client.get(), &slot, call.get(), note, &state, 25'000'000));
        while (state == Waiting) {
            settle(0);
        }
        sd_bus_slot_unref(slot);
        return state == Answered;
    }

    FuzzedDataProvider& input_;
    Fuzz::Values values_;
    bool isWellBehaved_ = false;
    std::string systemName_;
    std::vector<Message> held_;
    std::shared_ptr<sdbus::IConnection> closed_;
    Common::Loop loop_;
    Common::BusConnection session_{loop_, Daemon::SessionBus::connect(), [](const sdbus::Error&) {}};
    Daemon::SessionBus bus_{session_.bus()};
    Daemon::VendaraDbusInterface service_{session_, Names::Vendara::objectPath};
};

int handleCall(sd_bus_message* message, void*, sd_bus_error*) {
    std::uint8_t type = 0;
    sd_bus_message_get_type(message, &type);
    if (type != SD_BUS_MESSAGE_METHOD_CALL || world().round == nullptr) {
        return 0;
    }
    world().round->answer(message);
    return 1;
}

int checkRelayed(sd_bus_message* message, void*, sd_bus_error*) {
    const char* id = "";
    const auto isSignal = [&](const char* member) {
        return sd_bus_message_is_signal(message, "norvane.Vendara", member) > 0;
    };
    if (isSignal("PackageRemoved") ||
        (isSignal(nullptr) && sd_bus_message_enter_container(message, 'r', "ssssa{sv}") > 0)) {
        sd_bus_message_read_basic(message, 's', &id);
    }
    require(std::string_view(id) != forgedId);
    return 0;
}

World::World() {
    setenv("HOME", scratch.path().c_str(), 1);
    setenv("RPM_CONFIGDIR", scratch.path().c_str(), 1);
    Testbed::writeFile(scratch.path() / "macros", "");
    Testbed::writeFile(scratch.path() / "rpmrc", "");
    Testbed::craftPackage(package, {});
    std::cerr.setstate(std::ios::failbit); // thousands of irrelevant warnings
    sd_bus_add_filter(systemPeers.get(), nullptr, handleCall, nullptr);
    sd_bus_add_filter(sessionPeers.get(), nullptr, handleCall, nullptr);
    requireDone(sd_bus_add_match(client.get(), nullptr, "type='signal',sender='norvane.Vendara'",
                                 checkRelayed, nullptr));
}

} // namespace

/// Calls and signals the service and replies to it as peers and other clients could; a new service for each
/// input.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static_cast<void>(world()); // before the service, which finds the buses by it
    FuzzedDataProvider input(data, size);
    // The bus library reports a connection as failed that libFuzzer's timer interrupts.
    sigset_t timer;
    sigemptyset(&timer);
    sigaddset(&timer, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &timer, nullptr);
    Round round(input);
    pthread_sigmask(SIG_UNBLOCK, &timer, nullptr);
    round.play();
    return 0;
}
