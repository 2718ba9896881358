#include "daemon/VendaraDbusInterface.h"

#include "common/Names.h"

namespace Daemon {

namespace {

[[noreturn]] void refuse() {
    throw sdbus::Error(Common::Names::Vendara::error, "The service takes no requests yet");
}

} // namespace

VendaraDbusInterface::VendaraDbusInterface(sdbus::IConnection& connection, MainLoop& loop,
                                           std::string objectPath)
    : AdaptorInterfaces(connection, std::move(objectPath))
    , loop_(loop) {
    registerAdaptor();
}

VendaraDbusInterface::~VendaraDbusInterface() {
    unregisterAdaptor();
    loop_.drain();
}

Common::OperationRecord VendaraDbusInterface::Install(const std::string& /*packagePath*/) { refuse(); }
Common::OperationRecord VendaraDbusInterface::Remove(const std::string& /*packageID*/) { refuse(); }
std::map<std::string, sdbus::Variant> VendaraDbusInterface::GetAllProperties() { refuse(); }
void VendaraDbusInterface::Start(const std::string& /*packageID*/) { refuse(); }
void VendaraDbusInterface::Restart(const std::string& /*packageID*/) { refuse(); }

} // namespace Daemon
