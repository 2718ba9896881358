#include "fuzz/BusMessages.h"
#include "testbed/PrivateBus.h"
#include "tools/vendaractl/Commands.h"

#include <sdbus-c++/Error.h>

#include <clocale>
#include <iostream>
#include <poll.h>
#include <sstream>
#include <sys/eventfd.h>
#include <thread>

namespace {

using namespace Vendaractl;
using Fuzz::Message;
using Fuzz::require;
using Fuzz::requireDone;

constexpr auto service = "norvane.Vendara";
constexpr auto endId = "no.more.signals";

/// Captures a standard stream. If monitored, it fails after the line with endId.
class Captured : public std::stringbuf {
public:
    Captured(std::ostream& stream, bool isMonitored)
        : stream_(stream)
        , before_(stream.rdbuf(this))
        , isMonitored_(isMonitored) {}
    ~Captured() override {
        stream_.rdbuf(before_);
        stream_.clear();
    }
    int sync() override { return isMonitored_ && view().find(endId) != std::string_view::npos ? -1 : 0; }

private:
    std::ostream& stream_;
    std::streambuf* before_;
    bool isMonitored_;
};

/// The service as the client sees it: replies and signals are taken from the input. Leaves the bus when the
/// client waits for more. Runs on a thread of its own.
class Service {
public:
    Service(Fuzz::Connection& connection, FuzzedDataProvider& input, bool isMonitored)
        : bus_(connection)
        , input_(input)
        , isMonitored_(isMonitored) {
        requireDone(sd_bus_request_name(bus_.get(), service, 0));
        sd_bus_slot* slot = nullptr;
        requireDone(sd_bus_add_filter(bus_.get(), &slot, &Service::handle, this));
        slot_.reset(slot);
        thread_ = std::thread([this] { run(); });
    }
    ~Service() {
        eventfd_write(end_, 1);
        thread_.join();
        close(end_);
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

private:
    void run() {
        std::array<pollfd, 2> descriptors{pollfd{sd_bus_get_fd(bus_.get()), POLLIN, 0}, {end_, POLLIN, 0}};
        while (descriptors[1].revents == 0) {
            bus_.process();
            descriptors[0].events = static_cast<short>(sd_bus_get_events(bus_.get()));
            const int ready = poll(descriptors.data(), descriptors.size(), isMonitored_ ? 1 : -1);
            if (ready == 0) {
                sendPackageSignal();
            }
        }
        sd_bus_release_name(bus_.get(), service);
    }

    static int handle(sd_bus_message* message, void* self, sd_bus_error*) {
        if (sd_bus_message_is_method_call(message, service, nullptr) <= 0) {
            return 0;
        }
        static_cast<Service*>(self)->answer(message);
        return 1;
    }

    void answer(sd_bus_message* call) {
        const std::string method = sd_bus_message_get_member(call);
        const char* caller = sd_bus_message_get_sender(call);
        const bool hasOperation = method == "Install" || method == "Remove";
        sendStatuses(caller);
        if (input_.ConsumeIntegralInRange(0, 7) == 0) {
            sd_bus_reply_method_errorf(call, "norvane.Vendara.Error", "%s", values_.text().c_str());
        } else {
            sd_bus_message* made = nullptr;
            requireDone(sd_bus_message_new_method_return(call, &made));
            const Message message(made);
            if (hasOperation) {
                writeOperation(made);
            } else if (method == "GetAllProperties") {
                writeProperties(made);
            } else {
                values_.write(made, "");
            }
            sd_bus_send(bus_.get(), made, nullptr);
        }
        sendStatuses(caller);
        if (hasOperation || method == "GetAllProperties") {
            sd_bus_release_name(bus_.get(), service);
        }
    }

    void sendStatuses(const char* destination) {
        for (auto count = input_.ConsumeIntegralInRange(0, 3); count > 0; --count) {
            const Message message(newSignal("OperationStatusChanged"));
            sd_bus_message_set_destination(message.get(), destination);
            writeOperation(message.get());
            sd_bus_send(bus_.get(), message.get(), nullptr);
        }
    }

    /// The client may not have subscribed yet, so the last signal is repeated.
    void sendPackageSignal() {
        constexpr std::array names{"PackageInstalled", "PackageUpgraded", "PackageRemoved"};
        const bool isEnd = input_.remaining_bytes() == 0;
        const std::string name = isEnd ? "PackageRemoved" : input_.PickValueInArray(names);
        const Message message(newSignal(name.c_str()));
        if (isEnd) {
            sd_bus_message_append(message.get(), "s", endId);
        } else if (name == "PackageRemoved") {
            values_.write(message.get(), "s");
        } else {
            writePackage(message.get());
        }
        sd_bus_send(bus_.get(), message.get(), nullptr);
    }

    sd_bus_message* newSignal(const char* name) {
        sd_bus_message* made = nullptr;
        requireDone(sd_bus_message_new_signal(bus_.get(), &made, "/norvane/Vendara", service, name));
        return made;
    }

    void writeOperation(sd_bus_message* message) {
        if (input_.ConsumeBool()) {
            values_.write(message, "(ssiii)");
            return;
        }
        constexpr std::array statuses{0, 10, 90, 100, 101, 7};
        sd_bus_message_append(message, "(ssiii)", "id", values_.text().c_str(),
                              input_.ConsumeIntegralInRange(0, 3), input_.PickValueInArray(statuses),
                              input_.ConsumeIntegralInRange(0, 20));
    }

    void writePackage(sd_bus_message* message) { values_.write(message, "(ssssa{sv})"); }

    void writeProperties(sd_bus_message* message) {
        if (input_.ConsumeIntegralInRange(0, 7) == 0) {
            values_.write(message, "a{sv}");
            return;
        }
        sd_bus_message_open_container(message, 'a', "{sv}");
        const std::array<std::pair<const char*, const char*>, 5> entries{{{"Architecture", "s"},
                                                                          {"QuenraVersion", "s"},
                                                                          {"Operations", "a(ssiii)"},
                                                                          {"CompletedOperations", "a(ssiii)"},
                                                                          {"Packages", "a(ssssa{sv})"}}};
        for (const auto& [key, type] : entries) {
            sd_bus_message_open_container(message, 'e', "sv");
            sd_bus_message_append(message, "s", key);
            sd_bus_message_open_container(message, 'v', type);
            values_.writeTyped(message, type);
            sd_bus_message_close_container(message);
            sd_bus_message_close_container(message);
        }
        sd_bus_message_close_container(message);
    }

    Fuzz::Connection& bus_;
    FuzzedDataProvider& input_;
    Fuzz::Values values_{input_};
    bool isMonitored_;
    int end_ = eventfd(0, EFD_CLOEXEC);
    std::unique_ptr<sd_bus_slot, Fuzz::Releaser<sd_bus_slot_unref>> slot_;
    std::thread thread_;
};

using Command = ExitStatus (*)(const Request&);

void runCommand(Command command, const Request& request) {
    try {
        static_cast<void>(command(request));
    } catch (const sdbus::Error&) {
        std::abort();
    } catch (const OutputLost&) {
        require(command == &monitor);
    } catch (const std::runtime_error& error) {
        printFailure(request.format, {}, error.what());
    }
}

/// Requires text that is safe for a terminal and, with JSON, valid.
void check(const std::string& text, Format format) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        require(std::all_of(line.begin(), line.end(), [](unsigned char byte) {
            return byte == '\t' || (byte >= ' ' && byte != 0x7f);
        }));
        require(format == Format::Text || JsonValue::accept(line));
    }
}

} // namespace

/// Has the program carry out a request with a service that answers anything.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Testbed::PrivateBuses buses;
    static Fuzz::Connection connection("DBUS_SESSION_BUS_ADDRESS");
    static const bool isPrepared =
        std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr && setenv("TERM", "dumb", 1) == 0;
    require(isPrepared);
    FuzzedDataProvider input(data, size);
    constexpr std::array<Command, 8> commands{install,          remove, list,  operations,
                                              Vendaractl::wait, info,   start, monitor};
    const auto command = input.PickValueInArray(commands);
    Request request;
    if (command != &Vendaractl::wait) {
        request.arguments = {"/package.rpm"};
    }
    request.format = input.ConsumeBool() ? Format::Json : Format::Text;
    std::string output;
    std::string errors;
    {
        const bool isMonitored = command == &monitor;
        const Service thread(connection, input, isMonitored);
        Captured standardOutput(std::cout, isMonitored);
        Captured standardError(std::cerr, isMonitored);
        runCommand(command, request);
        output = standardOutput.str();
        errors = standardError.str();
    }
    check(output, request.format);
    check(errors, Format::Text);
    return 0;
}
