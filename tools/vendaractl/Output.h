#pragma once

#include "common/WireTypes.h"
#include "core/Operation.h"

#include <nlohmann/json.hpp>

#include <stdexcept>
#include <string>
#include <vector>

namespace Vendaractl {

using JsonValue = nlohmann::ordered_json;

/// How results are shown: to people, or one JSON text (RFC 8259) a line.
enum class Format { Words, Json };

/// Standard output takes no more.
class OutputLost : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[nodiscard]] const std::string& idOf(const Common::OperationRecord& operation);
[[nodiscard]] Core::OperationStatus statusOf(const Common::OperationRecord& operation);
/// Whether the status is final.
[[nodiscard]] bool hasEnded(const Common::OperationRecord& operation);

/// "install com.example.app: in progress"; a failure with its cause. Safe for a terminal.
/// @param columns  of the terminal that it has to fit in: where it does not, the package is what is cut
[[nodiscard]] std::string inWords(const Common::OperationRecord& operation,
                                  std::size_t columns = std::string::npos);
[[nodiscard]] JsonValue toJson(const Common::OperationRecord& operation);
[[nodiscard]] JsonValue toJson(const Common::PackageRecord& package);
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

/// Writes a line on standard output, at once. Throws OutputLost.
void printLine(const std::string& line);
/// The same for a value, in ASCII.
void printJson(const JsonValue& value);

/// A table on a terminal, with its header; lines of fields parted by tabs otherwise.
void printTable(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows);

/// Tells on standard error how an operation ended that nobody waited for. The service says so once: whoever
/// asks passes it on.
void printEarlier(const Common::OperationRecord& operation);

/// Tells on standard error, or as JSON on standard output, what could not be done.
/// @param subject  the file or package that it is about, or nothing
void printFailure(Format format, const std::string& subject, const std::string& message);

} // namespace Vendaractl
