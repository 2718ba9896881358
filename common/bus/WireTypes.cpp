#include "common/bus/WireTypes.h"

#include <sdbus-c++/sdbus-c++.h>

#include <variant>

namespace Common {

namespace {

using Values = std::map<std::string, sdbus::Variant>;
using WirePackage = sdbus::Struct<std::string, std::string, std::string, std::string, Values>;

sdbus::Variant toWire(const OtherValue& /*value*/) { throw std::bad_variant_access(); }
template<typename Type>
sdbus::Variant toWire(const Type& value) {
    return sdbus::Variant(value);
}

template<typename... Types>
std::variant<OtherValue, Types...> fromWire(const sdbus::Variant& value,
                                            const std::variant<OtherValue, Types...>* /*type*/) {
    std::variant<OtherValue, Types...> result = OtherValue{value.peekValueType()};
    static_cast<void>(((value.containsValueOfType<Types>() && (result = value.get<Types>(), true)) || ...));
    return result;
}

} // namespace

WireOperation toWire(const OperationRecord& operation) {
    return {operation.id, operation.packageId, static_cast<std::int32_t>(operation.type),
            static_cast<std::int32_t>(operation.status), static_cast<std::int32_t>(operation.errorCode)};
}

sdbus::Message& operator<<(sdbus::Message& message, const OperationRecord& operation) {
    return message << toWire(operation);
}

// At the end of an array the structure is not entered.
sdbus::Message& operator>>(sdbus::Message& message, OperationRecord& operation) {
    if (message.enterStruct("ssiii")) {
        std::int32_t type = 0;
        std::int32_t status = 0;
        std::int32_t errorCode = 0;
        message >> operation.id >> operation.packageId >> type >> status >> errorCode;
        message.exitStruct();
        operation.type = static_cast<OperationType>(type);
        operation.status = static_cast<OperationStatus>(status);
        operation.errorCode = static_cast<ErrorCode>(errorCode);
    }
    return message;
}

sdbus::Message& operator<<(sdbus::Message& message, const PackageRecord& package) {
    Values extra;
    for (const auto& [key, value] : package.extra) {
        extra[key] = std::visit([](const auto& content) { return toWire(content); }, value);
    }
    return message << WirePackage(package.id, package.version, package.certificateSubgroup,
                                  package.certificateId, extra);
}

sdbus::Message& operator>>(sdbus::Message& message, PackageRecord& package) {
    if (message.enterStruct("ssssa{sv}")) {
        Values extra;
        message >> package.id >> package.version >> package.certificateSubgroup >> package.certificateId >>
            extra;
        message.exitStruct();
        for (const auto& [key, value] : extra) {
            package.extra[key] = fromWire(value, static_cast<const PackageRecord::Value*>(nullptr));
        }
    }
    return message;
}

} // namespace Common
