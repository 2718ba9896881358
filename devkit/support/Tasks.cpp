#include "devkit/support/Tasks.h"

#include "common/UniqueFd.h"

#include <cerrno>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

namespace Devkit {

void postWhenEnded(Common::BusConnection& bus, pid_t process, Task task) {
    using Descriptor = asio::posix::stream_descriptor;
    // The C library's own declaration is of no use to C++ in version 2.36.
    Common::UniqueFd descriptor(static_cast<int>(syscall(SYS_pidfd_open, process, 0U)));
    if (!descriptor && errno == ESRCH) {
        bus.post(std::move(task));
        return;
    }
    if (!descriptor) {
        throw std::system_error(errno, std::generic_category(), "couldn't open a process");
    }
    const auto end = std::make_shared<Descriptor>(bus.loop().context());
    end->assign(descriptor.release());
    end->async_wait(Descriptor::wait_read,
                    [&bus, end, task = std::move(task)](const asio::error_code& error) {
                        if (!error) {
                            bus.post(task);
                        }
                    });
}

void postAfter(Common::BusConnection& bus, std::chrono::milliseconds time, Task task) {
    const auto timer = std::make_shared<asio::steady_timer>(bus.loop().context(), time);
    timer->async_wait([&bus, timer, task = std::move(task)](const asio::error_code& error) {
        if (!error) {
            bus.post(task);
        }
    });
}

} // namespace Devkit
