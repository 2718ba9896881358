#pragma once

#include "common/WireTypes.h"
#include "daemon/MainLoop.h"
#include "daemon/Vendara_adaptor.h"

#include <sdbus-c++/sdbus-c++.h>

#include <string>

namespace Daemon {

/// The service object: carries the interface on the bus.
class VendaraDbusInterface final : private sdbus::AdaptorInterfaces<norvane::Vendara_adaptor> {
public:
    VendaraDbusInterface(sdbus::IConnection& connection, MainLoop& loop, std::string objectPath);
    ~VendaraDbusInterface();
    VendaraDbusInterface(const VendaraDbusInterface&) = delete;
    VendaraDbusInterface& operator=(const VendaraDbusInterface&) = delete;

private:
    Common::OperationRecord Install(const std::string& packagePath) override;
    Common::OperationRecord Remove(const std::string& packageID) override;
    std::map<std::string, sdbus::Variant> GetAllProperties() override;
    void Start(const std::string& packageID) override;
    void Restart(const std::string& packageID) override;

    MainLoop& loop_;
};

} // namespace Daemon
