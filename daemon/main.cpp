#include "common/LogLine.h"
#include "common/Names.h"
#include "daemon/MainLoop.h"
#include "daemon/VendaraDbusInterface.h"

#include <csignal>
#include <cstdlib>

int main() {
    namespace Own = Common::Names::Vendara;
    std::signal(SIGPIPE, SIG_IGN); // whoever reads the log may go away
    try {
        const auto connection = sdbus::createSessionBusConnection(Own::service);
        Daemon::MainLoop loop(*connection);
        Daemon::VendaraDbusInterface service(*connection, loop, Own::objectPath);
        loop.run();
        return EXIT_SUCCESS;
    } catch (const sdbus::Error& error) {
        Common::logError() << "couldn't register service: " << Own::service;
        Common::logError() << error.getMessage();
        return EXIT_FAILURE;
    }
}
