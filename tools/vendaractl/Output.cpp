#include "tools/vendaractl/Output.h"

#include "common/PrintableText.h"
#include "tools/vendaractl/Text.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <unistd.h>

namespace Vendaractl {

namespace {

// A value of a package's further entries; types that JSON has no like of are told by their D-Bus signature.
JsonValue toJson(const sdbus::Variant& value) {
    const auto type = value.peekValueType();
    if (type == "s") {
        return value.get<std::string>();
    }
    if (type == "b") {
        return value.get<bool>();
    }
    if (type == "i") {
        return value.get<std::int32_t>();
    }
    if (type == "u") {
        return value.get<std::uint32_t>();
    }
    if (type == "x") {
        return value.get<std::int64_t>();
    }
    if (type == "t") {
        return value.get<std::uint64_t>();
    }
    if (type == "as") {
        return value.get<std::vector<std::string>>();
    }
    return JsonValue{{"signature", type}};
}

std::string padded(const std::string& text, std::size_t width) {
    return text + std::string(width - std::min(width, columnsOf(text)), ' ');
}

} // namespace

const std::string& idOf(const Common::OperationRecord& operation) { return operation.get<0>(); }

Core::OperationStatus statusOf(const Common::OperationRecord& operation) {
    return static_cast<Core::OperationStatus>(operation.get<3>());
}

bool hasEnded(const Common::OperationRecord& operation) {
    return statusOf(operation) == Core::OperationStatus::Finished ||
           statusOf(operation) == Core::OperationStatus::Failed;
}

std::string inWords(const Common::OperationRecord& operation, std::size_t columns) {
    const auto type = nameOf(static_cast<Core::OperationType>(operation.get<2>())) + " ";
    auto package = Common::printable(operation.get<1>());
    auto status = ": " + nameOf(statusOf(operation));
    if (statusOf(operation) == Core::OperationStatus::Failed) {
        const auto code = operation.get<4>();
        status +=
            ": " + describe(static_cast<Common::ErrorCode>(code)) + " (error " + std::to_string(code) + ")";
    }
    const std::string omission = "...";
    const auto others = columnsOf(type) + columnsOf(status);
    if (others + columnsOf(package) > columns) {
        const auto needed = others + omission.size();
        package = fitted(package, columns - std::min(columns, needed)) + omission;
    }
    return fitted(type + package + status, columns);
}

JsonValue toJson(const Common::OperationRecord& operation) {
    const auto code = operation.get<4>();
    JsonValue result{{"id", idOf(operation)},
                     {"package", operation.get<1>()},
                     {"type", nameOf(static_cast<Core::OperationType>(operation.get<2>()))},
                     {"status", nameOf(statusOf(operation))},
                     {"errorCode", code}};
    if (code != 0) {
        result["error"] = describe(static_cast<Common::ErrorCode>(code));
    }
    return result;
}

JsonValue toJson(const Common::PackageRecord& package) {
    JsonValue extra = JsonValue::object();
    for (const auto& [key, value] : package.get<4>()) {
        extra[key] = toJson(value);
    }
    return JsonValue{{"id", package.get<0>()},
                     {"version", package.get<1>()},
                     {"certificateSubgroup", package.get<2>()},
                     {"certificateId", package.get<3>()},
                     {"extra", extra}};
}

bool onTerminal() {
    const char* const kind = std::getenv("TERM");
    return isatty(STDOUT_FILENO) != 0 && kind != nullptr && std::string_view(kind) != "dumb";
}

void printLine(const std::string& line) {
    if (!(std::cout << line << std::endl)) {
        throw OutputLost("couldn't write to standard output");
    }
}

void printJson(const JsonValue& value) {
    printLine(value.dump(-1, ' ', true, JsonValue::error_handler_t::replace));
}

void printTable(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths(header.size(), 0);
    auto lines = rows;
    for (auto& line : lines) {
        std::transform(line.begin(), line.end(), line.begin(), Common::printable);
    }
    if (onTerminal()) {
        lines.insert(lines.begin(), header);
        for (const auto& line : lines) {
            for (std::size_t column = 0; column + 1 < line.size(); ++column) {
                widths[column] = std::max(widths[column], columnsOf(line[column]) + 1);
            }
        }
    }
    for (const auto& line : lines) {
        std::string text;
        for (std::size_t column = 0; column < line.size(); ++column) {
            text += column == 0 ? "" : onTerminal() ? " " : "\t";
            text += padded(line[column], widths[column]);
        }
        printLine(text);
    }
}

void printEarlier(const Common::OperationRecord& operation) {
    std::cerr << "earlier: " << inWords(operation) << std::endl;
}

void printFailure(Format format, const std::string& subject, const std::string& message) {
    if (format == Format::Json) {
        JsonValue error{{"message", message}};
        if (!subject.empty()) {
            error["subject"] = subject;
        }
        printJson(JsonValue{{"error", error}});
        return;
    }
    std::cerr << "vendaractl: " << (subject.empty() ? "" : Common::printable(subject) + ": ")
              << Common::printable(message) << std::endl;
}

} // namespace Vendaractl
