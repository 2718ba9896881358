#pragma once

#include <sdbus-c++/Types.h>

#include <cstdint>
#include <map>
#include <string>

namespace Common {

/// An operation on the bus, signature (ssiii): id, packageId, type, status, errorCode.
using OperationRecord = sdbus::Struct<std::string, std::string, std::int32_t, std::int32_t, std::int32_t>;

/// An installed package on the bus, signature (ssssa{sv}): id, version, certificateSubgroup, certificateId,
/// extra.
using PackageRecord =
    sdbus::Struct<std::string, std::string, std::string, std::string, std::map<std::string, sdbus::Variant>>;

/// A package as the package manager describes it, signature a{ss}: dotted key to value.
using PackageProperties = std::map<std::string, std::string>;

} // namespace Common
