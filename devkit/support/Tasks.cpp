#include "devkit/support/Tasks.h"

#include "common/Spawn.h"

#include <asio/posix/stream_descriptor.hpp>

namespace Devkit {

void postWhenEnded(Common::BusConnection& bus, pid_t process, Task task) {
    using Descriptor = asio::posix::stream_descriptor;
    auto descriptor = Common::openProcess(process);
    if (!descriptor) {
        bus.post(std::move(task));
        return;
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
