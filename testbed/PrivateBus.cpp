#include "testbed/PrivateBus.h"

#include "testbed/WaitUntil.h"

#include <sdbus-c++/sdbus-c++.h>

#include <cstdlib>
#include <stdexcept>

namespace Testbed {

namespace {

std::string configuration(const std::filesystem::path& directory, const std::string& limits) {
    return "<busconfig><type>session</type><listen>unix:path=" + (directory / "bus").string() +
           "</listen><auth>EXTERNAL</auth><policy context='default'>"
           "<allow send_destination='*' eavesdrop='true'/><allow eavesdrop='true'/>"
           "<allow own='*'/><allow user='*'/></policy>" +
           limits + "</busconfig>";
}

// Whether there is a whole line with the address; others are warnings and errors.
bool isReady(const std::string& output) {
    const auto address = ("\n" + output).find("\nunix:path=");
    return address != std::string::npos && output.find('\n', address) != std::string::npos;
}

} // namespace

PrivateBus::PrivateBus(const std::string& limits)
    : address_("unix:path=" + (scratch_.path() / "bus").string()) {
    // The bus library makes what its variants share with the first one. Made here, before any thread of a
    // test starts, it is no data race in the eyes of ThreadSanitizer, which cannot see into that library.
    const sdbus::Variant first{false};
    const auto file = scratch_.path() / "bus.conf";
    writeFile(file, configuration(scratch_.path(), limits));
    daemon_ = std::make_unique<Process>(std::vector<std::string>{"dbus-daemon", "--nofork", "--print-address",
                                                                 "--config-file=" + file.string()});
    if (!waitUntil([this] { return isReady(daemon_->output()) || !daemon_->isRunning(); }) ||
        !isReady(daemon_->output())) {
        throw std::runtime_error("the bus does not start: " + daemon_->output());
    }
}

void PrivateBus::openToOthers() const {
    std::filesystem::permissions(scratch_.path(), std::filesystem::perms{0711});
}

// The session bus has the limits of a desktop's.
PrivateBuses::PrivateBuses()
    : session("<limit name='max_incoming_bytes'>1000000000</limit>"
              "<limit name='max_outgoing_bytes'>1000000000</limit>"
              "<limit name='max_message_size'>1000000000</limit>") {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", system.address().c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", session.address().c_str(), 1);
}

} // namespace Testbed
