#include "common/bus/BusConnection.h"

#include "common/Guard.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>

namespace Common {

namespace {

// Number of messages handled in one turn of the loop, so that other handlers run in between.
constexpr int batchSize = 32;

int duplicateOf(int descriptor) {
    const int duplicate = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    if (duplicate < 0) {
        throw std::system_error(errno, std::generic_category(), "couldn't watch the bus");
    }
    return duplicate;
}

} // namespace

BusConnection::BusConnection(Loop& loop, std::shared_ptr<sdbus::IConnection> connection, LostHandler lost)
    : loop_(loop)
    , connection_(std::move(connection))
    , lost_(std::move(lost))
    , socket_(loop.context(), duplicateOf(connection_->getEventLoopPollData().fd))
    , timer_(loop.context())
    , self_(std::make_shared<BusConnection*>(this)) {
    waitForInput();
    watchOutput(); // messages read during the connection setup are already queued
}

void BusConnection::post(std::function<void()> task) {
    asio::post(loop_.context(), [weak = std::weak_ptr(self_), task = std::move(task)] {
        if (const auto self = weak.lock()) {
            guarded("couldn't run a task of the loop", task);
            (*self)->watchOutput();
        }
    });
}

void BusConnection::watchOutput() {
    if (!isUpdateDue_ && !isHandling_) {
        isUpdateDue_ = true;
        asio::post(loop_.context(), [weak = std::weak_ptr(self_)] {
            if (const auto self = weak.lock()) {
                (*self)->isUpdateDue_ = false;
                (*self)->waitForEvents();
            }
        });
    }
}

void BusConnection::reportIfLost(const sdbus::Error& error) {
    static constexpr std::array names{"org.freedesktop.DBus.Error.Disconnected", "System.Error.ENOTCONN",
                                      "System.Error.ECONNRESET", "System.Error.EPIPE",
                                      "System.Error.ESHUTDOWN"};
    if (std::find(names.begin(), names.end(), error.getName()) != names.end() ||
        (error.getName() == "org.freedesktop.DBus.Error.NoReply" &&
         error.getMessage() == "Connection terminated")) {
        reportLoss(error);
    }
}

asio::awaitable<void> BusConnection::flushed(TimePoint deadline) {
    if ((static_cast<unsigned>(connection_->getEventLoopPollData().events) &
         static_cast<unsigned>(POLLOUT)) == 0) {
        co_return;
    }
    written_ = std::make_shared<Event>(loop_.context());
    watchOutput();
    const auto written = written_;
    co_await written->wait(deadline);
}

void BusConnection::handleMessages() {
    if (isClosed_) {
        return;
    }
    isHandling_ = true;
    try {
        bool handled = true;
        for (int count = 0; handled && count < batchSize; ++count) {
            handled = connection_->processPendingRequest();
        }
        isHandling_ = false;
        waitForEvents();
    } catch (const sdbus::Error& error) {
        isHandling_ = false;
        isClosed_ = true;
        reportLoss(error);
    }
}

void BusConnection::reportLoss(const sdbus::Error& error) {
    if (const auto lost = std::exchange(lost_, nullptr)) {
        lost(error);
    }
}

void BusConnection::waitForEvents() {
    if (isClosed_) {
        return;
    }
    try {
        const auto wanted = connection_->getEventLoopPollData();
        if ((static_cast<unsigned>(wanted.events) & static_cast<unsigned>(POLLOUT)) != 0) {
            waitForOutput();
        } else if (written_) {
            std::exchange(written_, nullptr)->set();
        }
        if (const auto timeout = wanted.getRelativeTimeout()) {
            waitForTimeout(*timeout);
        }
    } catch (const sdbus::Error&) {
        handleMessages(); // finds the same and reports it
    }
}

void BusConnection::waitForInput() {
    socket_.async_wait(asio::posix::stream_descriptor::wait_read,
                       [weak = std::weak_ptr(self_)](const asio::error_code& error) {
                           const auto self = weak.lock();
                           if (self && !error && !(*self)->isClosed_) {
                               (*self)->handleMessages();
                               (*self)->waitForInput();
                           }
                       });
}

void BusConnection::waitForOutput() {
    if (!std::exchange(isWaitingForOutput_, true)) {
        socket_.async_wait(asio::posix::stream_descriptor::wait_write,
                           [weak = std::weak_ptr(self_)](const asio::error_code& error) {
                               if (const auto self = weak.lock(); self && !error) {
                                   (*self)->isWaitingForOutput_ = false;
                                   (*self)->handleMessages();
                               }
                           });
    }
}

// A timer that expires too early is harmless, so it is reset only for an earlier time-out.
void BusConnection::waitForTimeout(std::chrono::microseconds timeout) {
    const auto when = TimePoint::clock::now() + timeout;
    if (timeout_ && *timeout_ <= when) {
        return;
    }
    timeout_ = when;
    timer_.expires_at(when);
    timer_.async_wait([weak = std::weak_ptr(self_)](const asio::error_code& error) {
        if (const auto self = weak.lock(); self && !error) {
            (*self)->timeout_.reset();
            (*self)->handleMessages();
        }
    });
}

} // namespace Common
