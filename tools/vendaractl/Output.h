#pragma once

#include "client/Records.h"
#include "tools/Json.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace Vendaractl {

using Tools::JsonValue;
using Row = std::vector<std::string>;
using Rows = std::vector<Row>;

/// The output format: human-readable, or one JSON object (RFC 8259) a line.
enum class Format { Text, Json };

/// Standard output cannot be written.
class OutputLost : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// "install com.example.app: in progress"; a failure with its cause. Escaped for a terminal.
/// @param columns  of the terminal; the package's identifier in a longer text is shortened
[[nodiscard]] std::string toText(const Vendara::Operation& operation,
                                 std::size_t columns = std::string::npos);
[[nodiscard]] JsonValue toJson(const Vendara::Operation& operation);
[[nodiscard]] JsonValue toJson(const Vendara::Package& package);
template<typename Record>
[[nodiscard]] JsonValue toJson(const std::vector<Record>& records) {
    JsonValue result = JsonValue::array();
    for (const auto& record : records) {
        result.push_back(toJson(record));
    }
    return result;
}

/// The JSON of a text that may be unknown.
[[nodiscard]] JsonValue orNull(const std::string& text);

/// Whether standard output is a terminal that supports cursor movements.
[[nodiscard]] bool onTerminal();

/// Writes a line to standard output and flushes it. Throws OutputLost.
void printLine(const std::string& line);
/// The same for a text that is not yet escaped for a terminal.
void printText(const std::string& text);
/// The same for a value, in ASCII.
void printJson(const JsonValue& value);

/// On a terminal prints a table with the header; otherwise lines with tab-separated fields.
void printTable(const std::vector<std::string>& header, const Rows& rows);

/// Prints the result of an operation that the program did not follow on standard error.
void printEarlier(const Vendara::Operation& operation);

/// Prints a failure on standard error, or as JSON on standard output.
/// @param subject  the file or package that it concerns; empty: none
void printFailure(Format format, const std::string& subject, const std::string& message);

} // namespace Vendaractl
