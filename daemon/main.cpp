#include "common/LogLine.h"
#include "common/Names.h"
#include "daemon/SessionBus.h"
#include "daemon/VendaraDbusInterface.h"

#include <systemd/sd-daemon.h>

#include <csignal>
#include <cstdlib>
#include <link.h>
#include <sys/mman.h>
#include <sys/resource.h>

namespace {

namespace Own = Common::Names::Vendara;

int fail(const std::string& message) {
    Common::logError() << "couldn't register service: " << Own::service;
    Common::logError() << message;
    return EXIT_FAILURE;
}

// When the bus is gone the process ends at once: further failures would only add log lines.
std::shared_ptr<sdbus::IConnection> reconnect(const Daemon::SessionBus& bus) {
    try {
        return bus.reconnect();
    } catch (const Daemon::SessionBus::Gone& error) {
        std::_Exit(fail(error.what()));
    }
}

// Clients may attach descriptors to requests. The soft limit is low only for programs that use select(2).
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Gives back pages of the libraries that only the start has read, mostly symbols and relocations. Pages that
// are not writable are read from the file again when needed. A debugger's breakpoints in them are lost.
void dropPagesOfStartUp() {
    dl_iterate_phdr(
        [](dl_phdr_info* library, std::size_t, void*) {
            for (int index = 0; index < library->dlpi_phnum; ++index) {
                const auto& segment = library->dlpi_phdr[index];
                const auto begin = library->dlpi_addr + segment.p_vaddr;
                if (segment.p_type == PT_LOAD && (segment.p_flags & PF_W) == 0) {
                    // NOLINTNEXTLINE(performance-no-int-to-ptr): the loader gives addresses as numbers
                    madvise(reinterpret_cast<void*>(begin), segment.p_memsz, MADV_DONTNEED);
                }
            }
            return 0;
        },
        nullptr);
}

int serve() {
    raiseDescriptorLimit();
    auto connection = Daemon::SessionBus::connect();
    const Daemon::SessionBus bus(*connection);
    Common::Loop loop;
    std::string loss;
    Common::BusConnection session(loop, std::move(connection),
                                  [&](const sdbus::Error& error) { loss = error.getMessage(); });
    Daemon::VendaraDbusInterface service(session, Own::objectPath);
    session.reconnectWith([bus] { return reconnect(bus); },
                          [&] {
                              service.exportAnew();
                              Common::logWarning() << "reconnected to the session bus: " << loss;
                          });
    sd_notify(0, "READY=1");
    dropPagesOfStartUp();
    try {
        loop.run();
    } catch (const std::exception& error) {
        if (loop.isHelperBusy()) {
            std::_Exit(fail(error.what()));
        }
        throw;
    }
    if (loop.isHelperBusy()) {
        std::_Exit(EXIT_SUCCESS); // a helper may wait for a file system that never responds
    }
    return EXIT_SUCCESS;
}

} // namespace

int main() {
    std::signal(SIGPIPE, SIG_IGN); // the reader of the log may have exited
    try {
        return serve();
    } catch (const sdbus::Error& error) {
        return fail(error.getMessage());
    } catch (const std::exception& error) {
        return fail(error.what());
    } catch (...) {
        return fail("unknown failure");
    }
}
