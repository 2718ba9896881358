#include "tools/vendaractl/Commands.h"

#include "common/Names.h"
#include "common/PrintableText.h"
#include "tools/vendaractl/Follower.h"
#include "tools/vendaractl/ServiceClient.h"

#include <iostream>

namespace Vendaractl {

namespace Own = Common::Names::Vendara;

namespace {

ExitStatus carryOut(const Request& request) {
    Follower follower(makeOperationView(request.format));
    for (const auto& subject : request.arguments) {
        follower.begin(subject, [&](ServiceClient& client) {
            return request.command == Command::Install ? client.install(subject) : client.remove(subject);
        });
    }
    if (request.wait) {
        try {
            follower.follow();
        } catch (const Interrupted&) {
            std::cerr << "vendaractl: the operations continue in the background" << std::endl;
            throw;
        }
    }
    return follower.succeeded() ? Success : OperationFailed;
}

// The service passes the version on as os-release(5) has it, which may be in quotes.
std::string withoutQuotes(const std::string& text) {
    const bool quoted =
        text.size() >= 2 && text.front() == text.back() && (text.front() == '"' || text.front() == '\'');
    return quoted ? text.substr(1, text.size() - 2) : text;
}

ExitStatus showProperties(const Request& request) {
    auto properties = ServiceClient({}).properties();
    properties.quenraVersion = withoutQuotes(properties.quenraVersion);
    JsonValue result;
    std::vector<std::vector<std::string>> rows;
    if (request.command == Command::Info) {
        result = {{"architecture", properties.architecture}, {"quenraVersion", properties.quenraVersion}};
        rows = {{"architecture", properties.architecture}, {"version", properties.quenraVersion}};
    } else if (request.command == Command::List) {
        result = {{"packages", toJson(properties.packages)}};
        for (const auto& package : properties.packages) {
            rows.push_back({package.get<0>(), package.get<1>(), package.get<2>(), package.get<3>()});
        }
    } else {
        result = {{"operations", toJson(properties.operations)}};
        for (const auto* list : {&properties.operations, &properties.completedOperations}) {
            for (const auto& operation : *list) {
                rows.push_back({idOf(operation), inWords(operation)});
            }
        }
    }
    if (request.format == Format::Json) {
        result["completedOperations"] = toJson(properties.completedOperations);
        printJson(result);
        return Success;
    }
    if (request.command == Command::List) {
        printTable({"PACKAGE", "VERSION", "SUBGROUP", "CERTIFICATE"}, rows);
    } else if (request.command == Command::Info) {
        printTable({"FACT", "VALUE"}, rows);
    } else {
        printTable({"OPERATION", "STATUS"}, rows);
        return Success;
    }
    for (const auto& operation : properties.completedOperations) {
        printEarlier(operation);
    }
    return Success;
}

ExitStatus launch(const Request& request) {
    const auto& packageId = request.arguments.front();
    const bool restart = request.command == Command::Restart;
    try {
        ServiceClient client({});
        restart ? client.restart(packageId) : client.start(packageId);
    } catch (const CallRefused& error) {
        printFailure(request.format, packageId, error.what());
        return OperationFailed;
    }
    if (request.format == Format::Json) {
        printJson(JsonValue{{restart ? "restarting" : "started", packageId}});
    } else {
        printLine((restart ? "restarting " : "started ") + Common::printable(packageId));
    }
    return Success;
}

// Tells events as they come: words and a subject, or a JSON text of the signal's name and its argument.
[[noreturn]] void monitor(Format format) {
    const auto tellPackage = [format](const std::string& signal, const char* words) {
        return [=](const Common::PackageRecord& package) {
            if (format == Format::Json) {
                JsonValue event{{"event", signal}, {"package", package.get<0>()}};
                auto record = toJson(package);
                record.erase("id");
                event.update(record);
                printJson(event);
            } else {
                printLine(words + Common::printable(package.get<0>()) + " " +
                          Common::printable(package.get<1>()));
            }
        };
    };
    ServiceClient client(
        {.operationChanged = {},
         .packageInstalled = tellPackage(Own::packageInstalled, "installed "),
         .packageUpgraded = tellPackage(Own::packageUpgraded, "upgraded "),
         .packageRemoved =
             [format](const std::string& packageId) {
                 if (format == Format::Json) {
                     printJson(JsonValue{{"event", Own::packageRemoved}, {"package", packageId}});
                 } else {
                     printLine("removed " + Common::printable(packageId));
                 }
             },
         .serviceChanged =
             [format](bool present) {
                 if (format == Format::Json) {
                     printJson(JsonValue{{"event", present ? "ServiceCame" : "ServiceLeft"}});
                 } else {
                     printLine(present ? "the service is on the bus" : "the service left the bus");
                 }
             }});
    for (;;) {
        client.process(std::chrono::milliseconds(-1));
    }
}

} // namespace

ExitStatus run(const Request& request) {
    switch (request.command) {
    case Command::Install:
    case Command::Remove:
        return carryOut(request);
    case Command::List:
    case Command::Operations:
    case Command::Info:
        return showProperties(request);
    case Command::Start:
    case Command::Restart:
        return launch(request);
    case Command::Monitor:
        break;
    }
    monitor(request.format);
}

} // namespace Vendaractl
