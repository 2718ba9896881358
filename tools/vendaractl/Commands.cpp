#include "tools/vendaractl/Commands.h"

#include "common/Names.h"
#include "common/PrintableText.h"
#include "tools/vendaractl/OperationView.h"

#include <csignal>
#include <iostream>

namespace Vendaractl {

using Vendara::Client;

namespace {

// For commands that follow operations.
const std::vector<int> interruptions{SIGINT, SIGTERM, SIGHUP};

template<typename Work>
ExitStatus interruptible(const Client& client, const Work& work) {
    try {
        return work() ? Success : OperationFailed;
    } catch (const Vendara::Interrupted&) {
        if (const auto pending = client.pending(); !pending.empty()) {
            std::cerr
                << "vendaractl: the operations continue in the background; to follow them: vendaractl wait"
                << (pending.size() == 1 ? " " + Common::printable(pending.front().id) : "") << std::endl;
        }
        throw;
    }
}

using Begin = Vendara::Operation (Client::*)(const std::string&);

ExitStatus requestEach(const Request& request, Begin begin) {
    const auto view = makeOperationView(request.format);
    Client client(*view, interruptions);
    return interruptible(client, [&] {
        bool allTaken = true;
        for (const auto& subject : request.arguments) {
            try {
                (client.*begin)(subject);
            } catch (const Vendara::CallRefused& error) {
                allTaken = false;
                view->refused(subject, error.what());
            }
        }
        const bool succeeded = request.isDetached || client.follow();
        return succeeded && allTaken;
    });
}

Vendara::Properties readProperties() { return Client().properties(); }

// Completed operations are a part of the JSON; with a table they are printed on standard error.
void show(const Request& request, JsonValue result, const std::vector<Vendara::Operation>& completed,
          const std::vector<std::string>& header, const Rows& rows) {
    if (request.format == Format::Json) {
        result["completedOperations"] = toJson(completed);
        printJson(result);
        return;
    }
    // Printed first: the service reports them once, and the reader of the table, such as head(1), may stop.
    for (const auto& operation : completed) {
        printEarlier(operation);
    }
    printTable(header, rows);
}

using Launch = void (Client::*)(const std::string&);

ExitStatus launch(const Request& request, Launch call, const std::string& done) {
    const auto& packageId = request.arguments.front();
    try {
        Client client;
        (client.*call)(packageId);
    } catch (const Vendara::CallRefused& error) {
        printFailure(request.format, packageId, error.what());
        return OperationFailed;
    }
    if (request.format == Format::Json) {
        printJson(JsonValue{{done, packageId}});
    } else {
        printText(done + " " + packageId);
    }
    return Success;
}

// Prints each event: a sentence, or a JSON text of the signal's name and its argument.
class Monitor : public Vendara::Listener {
public:
    explicit Monitor(Format format)
        : format_(format) {}

    void installed(const Vendara::Package& package) override {
        print(Common::Names::Vendara::packageInstalled, "installed ", package);
    }
    void upgraded(const Vendara::Package& package) override {
        print(Common::Names::Vendara::packageUpgraded, "upgraded ", package);
    }
    void removed(const std::string& packageId) override {
        print({{"event", Common::Names::Vendara::packageRemoved}, {"package", packageId}},
              "removed " + packageId);
    }
    void serviceChanged(bool present) override {
        print({{"event", present ? "ServiceCame" : "ServiceLeft"}},
              present ? "the service is on the bus" : "the service left the bus");
    }

private:
    void print(const std::string& signal, const std::string& verb, const Vendara::Package& package) {
        JsonValue event{{"event", signal}, {"package", package.id}};
        auto record = toJson(package);
        record.erase("id");
        event.update(record);
        print(event, verb + package.id + " " + package.version);
    }
    void print(const JsonValue& event, const std::string& sentence) {
        format_ == Format::Json ? printJson(event) : printText(sentence);
    }

    Format format_;
};

} // namespace

ExitStatus install(const Request& request) { return requestEach(request, &Client::install); }
ExitStatus remove(const Request& request) { return requestEach(request, &Client::remove); }
ExitStatus start(const Request& request) { return launch(request, &Client::start, "started"); }
ExitStatus restart(const Request& request) { return launch(request, &Client::restart, "restarting"); }

ExitStatus list(const Request& request) {
    const auto properties = readProperties();
    Rows rows;
    for (const auto& package : properties.packages) {
        rows.push_back({package.id, package.version, package.certificateSubgroup, package.certificateId});
    }
    show(request, {{"packages", toJson(properties.packages)}}, properties.completedOperations,
         {"PACKAGE", "VERSION", "SUBGROUP", "CERTIFICATE"}, rows);
    return Success;
}

// The statuses of an operation are sent to the connection that requested it. Other connections of the
// application get it from the properties: while it is in progress and, if that connection has left the bus,
// once after its end.
ExitStatus wait(const Request& request) {
    const auto view = makeOperationView(request.format);
    Client client(*view, interruptions);
    const auto properties = client.properties();
    const auto& wanted = request.arguments;
    bool isKnown = wanted.empty();
    for (const auto* list : {&properties.completedOperations, &properties.operations}) {
        for (const auto& operation : *list) {
            if (wanted.empty() || operation.id == wanted.front() || operation.packageId == wanted.front()) {
                isKnown = true;
                client.attach(operation);
            } else if (list == &properties.completedOperations) {
                view->earlier(operation);
            }
        }
    }
    if (!isKnown) {
        view->refused(wanted.front(), "there is no such operation, or its result was already reported");
        return OperationFailed;
    }
    return interruptible(client, [&] { return client.follow(); });
}

ExitStatus operations(const Request& request) {
    if (request.follow) {
        return wait(request);
    }
    const auto properties = readProperties();
    Rows rows;
    for (const auto* list : {&properties.operations, &properties.completedOperations}) {
        for (const auto& operation : *list) {
            rows.push_back({operation.id, toText(operation)});
        }
    }
    const bool isJson = request.format == Format::Json;
    show(request, {{"operations", toJson(properties.operations)}},
         isJson ? properties.completedOperations : std::vector<Vendara::Operation>(), {"OPERATION", "STATUS"},
         rows);
    return Success;
}

ExitStatus info(const Request& request) {
    const auto properties = readProperties();
    const auto& version = properties.quenraVersion;
    show(request, {{"architecture", properties.architecture}, {"quenraVersion", version}},
         properties.completedOperations, {"FACT", "VALUE"},
         {{"architecture", properties.architecture}, {"version", version}});
    return Success;
}

ExitStatus monitor(const Request& request) {
    Monitor printer(request.format);
    Client(printer).listen();
}

} // namespace Vendaractl
