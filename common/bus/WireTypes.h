#pragma once

#include "common/Records.h"

#include <sdbus-c++/Message.h>

#include <cstdint>
#include <map>
#include <string>

namespace Common {

/// A package as reported by the package manager, signature a{ss}: dotted key to value.
using PackageProperties = std::map<std::string, std::string>;

/// An operation on the bus: id, packageId, type, status, errorCode.
using WireOperation = sdbus::Struct<std::string, std::string, std::int32_t, std::int32_t, std::int32_t>;
[[nodiscard]] WireOperation toWire(const OperationRecord& operation);

sdbus::Message& operator<<(sdbus::Message& message, const OperationRecord& operation);
sdbus::Message& operator>>(sdbus::Message& message, OperationRecord& operation);

/// Throws std::bad_variant_access for a package with an OtherValue.
sdbus::Message& operator<<(sdbus::Message& message, const PackageRecord& package);
sdbus::Message& operator>>(sdbus::Message& message, PackageRecord& package);

} // namespace Common

template<>
struct sdbus::signature_of<Common::OperationRecord> : signature_of<Common::WireOperation> {};

/// id, version, certificateSubgroup, certificateId, extra.
template<>
struct sdbus::signature_of<Common::PackageRecord>
    : signature_of<
          Struct<std::string, std::string, std::string, std::string, std::map<std::string, Variant>>> {};
