#include "devkit/support/NameWatch.h"

#include "common/Names.h"
#include "devkit/support/Spawn.h"

#include <sys/eventfd.h>

namespace Devkit {

namespace Names = Common::Names::MessageBus;

NameWatch::NameWatch(Common::Bus bus)
    : changed_(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "couldn't create an event descriptor"))
    , bus_({bus, Names::service, Names::objectPath, Names::interface}) {
    bus_.start({{Names::nameOwnerChanged, [this](sdbus::Signal&) { eventfd_write(changed_.get(), 1); }}});
}

bool NameWatch::isOwned(const std::string& name) {
    eventfd_t changes = 0;
    eventfd_read(changed_.get(), &changes);
    bool owned = false;
    bus_.call(Names::nameHasOwner, std::chrono::seconds(0), name) >> owned;
    return owned;
}

} // namespace Devkit
