#include "tools/vendaractl/Output.h"

#include "common/PrintableText.h"
#include "common/Utf8.h"
#include "tools/Progress.h"

#include <algorithm>
#include <cwchar>
#include <iostream>
#include <unistd.h>

namespace Vendaractl {

namespace {

// The columns of a text up to a byte offset; characters of unknown width count as wide.
struct Width {
    std::size_t bytes = 0;
    std::size_t columns = 0;
};

// The longest prefix of a printable text that fits. Needs a UTF-8 locale.
Width widthOf(std::string_view text, std::size_t limit = std::string::npos) {
    Width width;
    while (width.bytes < text.size()) {
        const auto character = Common::decodeUtf8(text.substr(width.bytes));
        const int columns = wcwidth(static_cast<wchar_t>(character.code));
        const auto next = width.columns + (columns < 0 ? 2 : static_cast<std::size_t>(columns));
        if (next > limit) {
            break;
        }
        width = {width.bytes + character.length, next};
    }
    return width;
}

std::string fitted(const std::string& text, std::size_t columns) {
    return text.substr(0, widthOf(text, columns).bytes);
}

std::string padded(const std::string& text, std::size_t columns) {
    return text + std::string(columns - std::min(columns, widthOf(text).columns), ' ');
}

JsonValue toJson(const Vendara::Package::Value& value) {
    return std::visit(
        [](const auto& content) -> JsonValue {
            if constexpr (std::is_same_v<decltype(content), const Vendara::OtherValue&>) {
                return JsonValue{{"signature", content.signature}};
            } else {
                return content;
            }
        },
        value);
}

} // namespace

std::string toText(const Vendara::Operation& operation, std::size_t columns) {
    auto text = Vendara::describe(operation);
    const auto width = widthOf(text).columns;
    if (width <= columns) {
        return text;
    }
    const std::string omission = "...";
    const auto package = Common::printable(operation.packageId);
    const auto begin = Vendara::nameOf(operation.type).size() + 1;
    const auto others = width - widthOf(package).columns + omission.size();
    return fitted(text.substr(0, begin) + fitted(package, columns - std::min(columns, others)) + omission +
                      text.substr(begin + package.size()),
                  columns);
}

JsonValue toJson(const Vendara::Operation& operation) {
    JsonValue result{{"id", operation.id},
                     {"package", operation.packageId},
                     {"type", Vendara::nameOf(operation.type)},
                     {"status", Vendara::nameOf(operation.status)},
                     {"errorCode", static_cast<std::int32_t>(operation.errorCode)}};
    if (operation.errorCode != Common::ErrorCode::None) {
        result["error"] = Vendara::describe(operation.errorCode);
    }
    return result;
}

JsonValue toJson(const Vendara::Package& package) {
    JsonValue extra = JsonValue::object();
    for (const auto& [key, value] : package.extra) {
        extra[key] = toJson(value);
    }
    return JsonValue{{"id", package.id},
                     {"version", package.version},
                     {"certificateSubgroup", package.certificateSubgroup},
                     {"certificateId", package.certificateId},
                     {"extra", extra}};
}

JsonValue orNull(const std::string& text) { return text.empty() ? JsonValue() : JsonValue(text); }

bool onTerminal() { return Tools::isTerminal(STDOUT_FILENO); }

void printLine(const std::string& line) {
    if (!(std::cout << line << std::endl)) {
        throw OutputLost("couldn't write to standard output");
    }
}

void printText(const std::string& text) { printLine(Common::printable(text)); }

void printJson(const JsonValue& value) { printLine(Tools::textOf(value)); }

void printTable(const std::vector<std::string>& header, const Rows& rows) {
    // A longer text shifts only its own row.
    constexpr std::size_t widest = 64;
    std::vector<std::size_t> widths(header.size(), 0);
    auto lines = rows;
    for (auto& line : lines) {
        std::transform(line.begin(), line.end(), line.begin(), Common::printable);
    }
    if (onTerminal()) {
        lines.insert(lines.begin(), header);
        for (const auto& line : lines) {
            for (std::size_t column = 0; column + 1 < line.size(); ++column) {
                widths[column] =
                    std::max(widths[column], std::min(widest, widthOf(line[column]).columns + 1));
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

void printEarlier(const Vendara::Operation& operation) {
    std::cerr << "earlier: " << toText(operation) << std::endl;
}

void printFailure(Format format, const std::string& subject, const std::string& message) {
    if (format == Format::Json) {
        printJson(Tools::failure(subject, message));
        return;
    }
    std::cerr << "vendaractl: " << (subject.empty() ? "" : Common::printable(subject) + ": ")
              << Common::printable(message) << std::endl;
}

} // namespace Vendaractl
