#include "testbed/PrivateBus.h"

#include "common/bus/PrivateBus.h"

#include <sdbus-c++/sdbus-c++.h>

#include <cstdlib>

namespace Testbed {

PrivateBus::PrivateBus(const std::string& limits)
    : address_("unix:path=" + (scratch_.path() / "bus").string()) {
    // The bus library makes what its variants share with the first one. Made here, before any thread of a
    // test starts, it is no data race in the eyes of ThreadSanitizer, which cannot see into that library.
    const sdbus::Variant first{false};
    auto output = streamFile();
    const pid_t bus =
        Common::startPrivateBus(scratch_.path() / "bus", output.get(),
                                "<policy context='default'><allow user='*'/></policy>" + limits);
    daemon_ = std::make_unique<Process>(bus, std::move(output));
}

void PrivateBus::openToOthers() const {
    std::filesystem::permissions(scratch_.path(), std::filesystem::perms{0711});
}

// The session bus has the limits of a desktop's.
PrivateBuses::PrivateBuses(const std::string& limits)
    : system(limits)
    , session("<limit name='max_incoming_bytes'>1000000000</limit>"
              "<limit name='max_outgoing_bytes'>1000000000</limit>"
              "<limit name='max_message_size'>1000000000</limit>" +
              limits) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", system.address().c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", session.address().c_str(), 1);
}

} // namespace Testbed
