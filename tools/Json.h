#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace Tools {

using JsonValue = nlohmann::ordered_json;

/// A JSON text (RFC 8259) in one line of ASCII; bytes that are not valid UTF-8 are replaced.
inline std::string textOf(const JsonValue& value) {
    return value.dump(-1, ' ', true, JsonValue::error_handler_t::replace);
}

/// A failure as JSON.
/// @param subject  the file or package that it concerns; empty: none
inline JsonValue failure(const std::string& subject, const std::string& message) {
    JsonValue error{{"message", message}};
    if (!subject.empty()) {
        error["subject"] = subject;
    }
    return JsonValue{{"error", error}};
}

} // namespace Tools
