#include "common/bus/PrivateBus.h"

#include "common/Files.h"
#include "common/Spawn.h"

#include <stdexcept>

namespace Common {

pid_t startPrivateBus(const std::filesystem::path& socket, int output, const std::string& limits) {
    const auto configuration = socket.native() + ".conf";
    AtomicFile file(socket.parent_path(), socket.filename().native() + ".conf");
    file.write("<busconfig><type>session</type><listen>unix:path=" + socket.native() +
               "</listen><auth>EXTERNAL</auth><policy context='default'>"
               "<allow send_destination='*' eavesdrop='true'/><allow eavesdrop='true'/>"
               "<allow own='*'/></policy>" +
               limits + "</busconfig>\n");
    file.commit(Durability::Later);
    auto [reading, writing] = makePipe();
    const pid_t bus = spawn({"dbus-daemon", "--nofork", "--nopidfile", "--config-file=" + configuration,
                             "--print-address=" + std::to_string(writing.get())},
                            {.output = output, .inherited = writing.get()});
    writing = UniqueFd();
    // It prints its address once it listens.
    std::byte first{};
    if (readAll(reading.get(), {&first, 1}) != 1U) {
        reap(bus);
        throw std::runtime_error("the bus " + socket.native() + " does not start");
    }
    return bus;
}

} // namespace Common
