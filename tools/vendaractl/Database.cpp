#include "core/zul/DatabaseInspection.h"
#include "tools/vendaractl/Commands.h"

#include <algorithm>

namespace Vendaractl {

using namespace Core::ZUL;

namespace {

InspectedDatabase databaseOf(const Request& request) {
    if (!request.image.empty()) {
        return InspectedDatabase::ofImage(request.image);
    }
    return {.directory = DatabaseLocation(request.configuration).rootDirectory(),
            .systemRoot = request.systemRoot};
}

std::optional<std::string> onlyPackage(const Request& request) {
    return request.arguments.empty() ? std::nullopt : std::optional(request.arguments.front());
}

JsonValue toJson(const std::vector<Unread>& unread) {
    JsonValue errors = JsonValue::array();
    for (const auto& each : unread) {
        errors.push_back({{"subject", orNull(each.package)}, {"message", each.message}});
    }
    return errors;
}

void print(const std::vector<Unread>& unread) {
    for (const auto& each : unread) {
        printFailure(Format::Text, each.package, each.message);
    }
}

JsonValue toJson(const Verification& result) {
    JsonValue json{{"packages", JsonValue::array()}, {"findings", JsonValue::array()}};
    for (const auto& each : result.packages) {
        json["packages"].push_back(
            {{"package", each.id}, {"version", orNull(each.version)}, {"prepared", orNull(each.prepared)}});
    }
    for (const auto& each : result.findings) {
        json["findings"].push_back({{"package", orNull(each.package)},
                                    {"path", each.path},
                                    {"problem", each.problem},
                                    {"repair", each.repair}});
    }
    json["errors"] = toJson(result.unread);
    return json;
}

std::string counted(std::size_t number, const std::string& what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

void print(const Verification& result, const InspectedDatabase& database) {
    for (const auto& each : result.packages) {
        if (!each.prepared.empty()) {
            printText(each.id + ": an upgrade to " + each.prepared + " is prepared");
        }
    }
    for (const auto& each : result.findings) {
        printText((each.package.empty() ? "" : each.package + ": ") + each.path + ": " + each.problem);
        printText("  to repair: " + each.repair);
    }
    print(result.unread);
    const bool isEmpty = result.packages.empty() && result.findings.empty() && result.unread.empty();
    printText((isEmpty ? "no package in " + database.directory.native()
                       : counted(result.packages.size(), "package")) +
              ", " + counted(result.findings.size(), "finding") +
              (result.unread.empty() ? "" : ", " + counted(result.unread.size(), "error")));
}

} // namespace

ExitStatus files(const Request& request) {
    const auto found = filesOf(request.arguments.front(), databaseOf(request));
    if (request.format == Format::Json) {
        JsonValue list = JsonValue::array();
        for (const auto& each : found) {
            list.push_back({{"path", each.path}, {"place", orNull(each.place)}});
        }
        printJson({{"package", request.arguments.front()}, {"files", list}});
        return Success;
    }
    Rows rows;
    for (const auto& each : found) {
        rows.push_back({each.path, each.place});
    }
    printTable({"FILE", "PLACE"}, rows);
    return Success;
}

ExitStatus owner(const Request& request) {
    const auto& path = request.arguments.front();
    const auto found = ownerOf(path, databaseOf(request));
    if (!found) {
        printFailure(request.format, path, "no installed package has this file");
        return OperationFailed;
    }
    if (request.format == Format::Json) {
        printJson({{"package", found->package}, {"version", orNull(found->version)}, {"file", found->file}});
    } else {
        printTable({"PACKAGE", "VERSION", "FILE"}, {{found->package, found->version, found->file}});
    }
    return Success;
}

ExitStatus size(const Request& request) {
    const auto package = onlyPackage(request);
    auto [sizes, unread] =
        package ? InstalledSizes{{sizeOf(*package, databaseOf(request))}, {}} : sizesOf(databaseOf(request));
    std::stable_sort(sizes.begin(), sizes.end(),
                     [](const auto& one, const auto& other) { return one.total() > other.total(); });
    JsonValue list = JsonValue::array();
    Rows rows;
    for (const auto& each : sizes) {
        list.push_back({{"package", each.package},
                        {"version", orNull(each.version)},
                        {"installed", each.installed},
                        {"others", each.others},
                        {"copies", each.copies},
                        {"total", each.total()}});
        rows.push_back({each.package, each.version, std::to_string(each.installed),
                        std::to_string(each.others), std::to_string(each.copies),
                        std::to_string(each.total())});
    }
    if (request.format == Format::Json) {
        printJson({{"packages", list}, {"errors", toJson(unread)}});
    } else {
        printTable({"PACKAGE", "VERSION", "INSTALLED", "OTHERS", "COPIES", "TOTAL"}, rows);
        print(unread);
    }
    return unread.empty() ? Success : OperationFailed;
}

ExitStatus verify(const Request& request) {
    const auto database = databaseOf(request);
    const auto result = Core::ZUL::verify(database, onlyPackage(request),
                                          request.ignoresAttributes ? SecurityAttributes::Ignored
                                                                    : SecurityAttributes::Expected);
    if (request.format == Format::Json) {
        printJson(toJson(result));
    } else {
        print(result, database);
    }
    return result.findings.empty() && result.unread.empty() ? Success : OperationFailed;
}

} // namespace Vendaractl
