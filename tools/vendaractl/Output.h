#pragma once

#include "client/Records.h"
#include "tools/Json.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace Vendaractl {

using Tools::JsonValue;

/// How results are shown: to people, or one JSON text (RFC 8259) a line.
enum class Format { Words, Json };

/// Standard output cannot be written.
class OutputLost : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// "install com.example.app: in progress"; a failure with its cause. Safe for a terminal.
/// @param columns  of the terminal; where the text has more, the package is cut
[[nodiscard]] std::string inWords(const Vendara::Operation& operation,
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

/// Whether standard output is a terminal that understands cursor movements.
[[nodiscard]] bool onTerminal();

/// Writes a line to standard output and flushes it. Throws OutputLost.
void printLine(const std::string& line);
/// The same for a value, in ASCII.
void printJson(const JsonValue& value);

/// A table on a terminal, with its header; lines of fields separated by tabs otherwise.
void printTable(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows);

/// Prints on standard error how an operation ended that the program did not follow.
void printEarlier(const Vendara::Operation& operation);

/// Prints a failure on standard error, or as JSON on standard output.
/// @param subject  the file or package that it is about; empty: none
void printFailure(Format format, const std::string& subject, const std::string& message);

} // namespace Vendaractl
