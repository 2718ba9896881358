#include "testbed/PrivateBus.h"

#include "common/bus/PrivateBus.h"

#include <sdbus-c++/sdbus-c++.h>

#include <cstdlib>
#include <stdexcept>

namespace Testbed {

PrivateBus::PrivateBus(const std::string& limits)
    : address_("unix:path=" + (scratch_.path() / "bus").string()) {
    // The bus library initialises shared data with its first variant. Done here, before any thread of a test
    // starts: ThreadSanitizer cannot see the library's synchronisation.
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

void PrivateBus::forgeReplies(const std::string& body, const std::string& caller) const {
    const std::string script = R"py(if True:
        import sys
        from gi.repository import Gio, GLib
        bus = Gio.bus_get_sync(Gio.BusType.SESSION)
        def ask(method, arguments=None):
            return bus.call_sync("org.freedesktop.DBus", "/", "org.freedesktop.DBus", method, arguments, None, 0, -1,
                                 None).unpack()[0]
        caller = sys.argv[2]
        names = [ask("GetNameOwner", GLib.Variant("(s)", (caller,)))] if caller else ask("ListNames")
        for name in names:
            for serial in range(1, 300):
                reply = Gio.DBusMessage()
                reply.set_message_type(Gio.DBusMessageType.METHOD_RETURN)
                reply.set_reply_serial(serial)
                reply.set_destination(name)
                reply.set_body(GLib.Variant.parse(None, sys.argv[1]))
                bus.send_message(reply, Gio.DBusSendMessageFlags.NONE)
        ask("ListNames"))py";
    const auto result = run({"/usr/bin/python3", "-c", script, body, caller},
                            {.environment = {{"DBUS_SESSION_BUS_ADDRESS", address_}}});
    if (result.status != 0) {
        throw std::runtime_error("couldn't forge replies: " + result.output);
    }
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
