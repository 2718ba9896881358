#include "common/bus/BusConnection.h"

#include "common/Guard.h"
#include "common/bus/SignalSource.h"

#include <algorithm>
#include <array>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

namespace Common {

namespace {

// Number of messages handled in one turn of the loop, so that other handlers run in between.
constexpr int batchSize = 32;

constexpr std::chrono::seconds attemptLimit{25};
constexpr std::chrono::milliseconds shortestPause{100};

int duplicateOf(int descriptor) {
    const int duplicate = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    if (duplicate < 0) {
        throw std::system_error(errno, std::generic_category(), "couldn't watch the bus");
    }
    return duplicate;
}

} // namespace

// One connection to the bus. Handlers of the loop have a weak_ptr to it.
class BusConnection::Link : public std::enable_shared_from_this<Link> {
public:
    Link(BusConnection& owner, std::shared_ptr<sdbus::IConnection> connection)
        : bus(std::move(connection))
        , owner_(owner)
        , socket_(owner.loop_.context(), duplicateOf(bus->getEventLoopPollData().fd))
        , timer_(owner.loop_.context()) {}

    void start() {
        waitForInput();
        watchOutput(); // messages read during the connection setup are already queued
    }
    void close();
    void watchOutput();
    asio::awaitable<void> flushed(TimePoint deadline);

    const std::shared_ptr<sdbus::IConnection> bus;

private:
    void handleMessages();
    void waitForEvents();
    void waitForInput();
    void waitForOutput();
    void waitForTimeout(std::chrono::microseconds timeout);

    BusConnection& owner_;
    asio::posix::stream_descriptor socket_;
    asio::steady_timer timer_;
    std::optional<TimePoint> timeout_; // of the timer
    bool isWaitingForOutput_ = false;
    bool isHandling_ = false;
    bool isUpdateDue_ = false;
    bool isClosed_ = false; // nothing is left to handle
    std::shared_ptr<Event> written_;
};

struct BusConnection::NewConnection {
    std::shared_ptr<sdbus::IConnection> bus; // outlives the subscriptions
    std::vector<std::pair<SignalSource*, SignalSource::Subscriptions>> subscriptions;
};

BusConnection::BusConnection(Loop& loop, std::shared_ptr<sdbus::IConnection> connection, LostHandler lost)
    : loop_(loop)
    , lost_(std::move(lost))
    , link_(std::make_shared<Link>(*this, std::move(connection))) {
    link_->start();
}

// Otherwise the bus library waits without limit for a bus that does not read.
BusConnection::~BusConnection() { link_->close(); }

const std::shared_ptr<sdbus::IConnection>& BusConnection::sharedBus() const { return link_->bus; }

void BusConnection::reconnectWith(Connect connect, std::function<void()> reconnected) {
    connect_ = std::move(connect);
    reconnected_ = std::move(reconnected);
}

void BusConnection::post(std::function<void()> task) {
    asio::post(loop_.context(), [weak = std::weak_ptr(link_), task = std::move(task)] {
        if (const auto link = weak.lock()) {
            guarded("couldn't run a task of the loop", task);
            link->watchOutput();
        }
    });
}

void BusConnection::watchOutput() { link_->watchOutput(); }

asio::awaitable<void> BusConnection::flushed(TimePoint deadline) { return link_->flushed(deadline); }

bool BusConnection::isConnected(const std::shared_ptr<sdbus::IConnection>& connection) const {
    return !loss_ && connection == link_->bus;
}

void BusConnection::requireConnected(const std::shared_ptr<sdbus::IConnection>& connection) const {
    if (!isConnected(connection)) {
        throw sdbus::Error("org.freedesktop.DBus.Error.Disconnected", "the connection to the bus was lost");
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

void BusConnection::reportLoss(const sdbus::Error& error) {
    if (loss_) {
        return;
    }
    loss_ = error;
    link_->close();
    if (connect_) {
        attempted_ = std::make_shared<Event>(loop_.context());
        loop_.spawn("couldn't reconnect to the bus", reconnect());
    }
    lost_(error);
    if (!connect_) {
        failCalls();
    }
}

void BusConnection::failCalls() {
    for (const auto& call : std::exchange(calls_, {})) {
        call->error = loss_;
        call->ended.set();
    }
}

// The calls of the lost connection fail after the first attempt, so that a process that ends with its bus
// does not log their failures.
asio::awaitable<void> BusConnection::reconnect() {
    using std::chrono::seconds;
    std::shared_ptr<Attempt> attempt;
    for (seconds pause{1}; loss_; pause = std::min(pause * 2, seconds(30))) {
        try {
            attempt = attempt ? attempt : beginAttempt();
            const bool hasEnded = co_await attempt->ended.wait(TimePoint::clock::now() + attemptLimit);
            if (hasEnded) {
                adopt(*std::exchange(attempt, nullptr));
            }
        } catch (const std::exception&) {
            // The next attempt may succeed.
        }
        std::exchange(attempted_, std::make_shared<Event>(loop_.context()))->set();
        if (loss_) {
            failCalls();
        }
        if (loss_ && !attempt) {
            const auto retry = retry_ = std::make_shared<Event>(loop_.context());
            Event never(loop_.context());
            co_await never.wait(TimePoint::clock::now() + shortestPause);
            co_await retry->wait(TimePoint::clock::now() + pause);
        }
    }
}

asio::awaitable<void> BusConnection::awaitConnection(TimePoint deadline) {
    if (loss_ && connect_) {
        if (retry_) {
            retry_->set();
        }
        const auto attempted = attempted_;
        co_await attempted->wait(deadline);
    }
}

std::shared_ptr<BusConnection::Attempt> BusConnection::beginAttempt() {
    std::vector<std::pair<SignalSource*, SignalSource::Wanted>> wanted;
    std::transform(sources_.begin(), sources_.end(), std::back_inserter(wanted),
                   [](SignalSource* source) { return std::pair(source, source->wanted_); });
    // Begins even if jobs that wait for a file system have reached the limit.
    return loop_.begin(std::function<NewConnection()>([connect = connect_, wanted = std::move(wanted)] {
                           NewConnection made{connect(), {}};
                           for (const auto& [source, what] : wanted) {
                               made.subscriptions.emplace_back(source, what.subscribeOn(*made.bus));
                           }
                           return made;
                       }),
                       2 * Loop::maximumJobs);
}

void BusConnection::adopt(Attempt& attempt) {
    if (attempt.failure) {
        std::rethrow_exception(attempt.failure);
    }
    auto& made = *attempt.result;
    const auto link = std::make_shared<Link>(*this, made.bus);
    failCalls();
    const auto lost = std::exchange(link_, link); // outlives what belongs to it
    for (auto& [source, subscriptions] : made.subscriptions) {
        source->subscriptions_ = std::move(subscriptions);
    }
    loss_.reset();
    try {
        reconnected_();
        link->start();
    } catch (...) {
        loop_.fail(std::current_exception());
    }
}

void BusConnection::Link::close() {
    isClosed_ = true;
    // The bus library cannot close it. The bus then releases its names, for a new connection.
    shutdown(socket_.native_handle(), SHUT_RDWR);
    asio::error_code ignored;
    socket_.close(ignored);
    timer_.cancel();
    if (written_) {
        written_->set();
    }
}

void BusConnection::Link::watchOutput() {
    if (!isUpdateDue_ && !isHandling_) {
        isUpdateDue_ = true;
        asio::post(owner_.loop_.context(), [weak = weak_from_this()] {
            if (const auto link = weak.lock()) {
                link->isUpdateDue_ = false;
                link->waitForEvents();
            }
        });
    }
}

asio::awaitable<void> BusConnection::Link::flushed(TimePoint deadline) {
    if (isClosed_ ||
        (static_cast<unsigned>(bus->getEventLoopPollData().events) & static_cast<unsigned>(POLLOUT)) == 0) {
        co_return;
    }
    written_ = std::make_shared<Event>(owner_.loop_.context());
    watchOutput();
    const auto written = written_;
    co_await written->wait(deadline);
}

void BusConnection::Link::handleMessages() {
    isHandling_ = true;
    try {
        bool handled = true;
        for (int count = 0; handled && !isClosed_ && count < batchSize; ++count) {
            handled = bus->processPendingRequest();
        }
        isHandling_ = false;
        waitForEvents();
    } catch (const sdbus::Error& error) {
        isHandling_ = false;
        if (!isClosed_) {
            owner_.reportLoss(error);
        }
    }
}

void BusConnection::Link::waitForEvents() {
    if (isClosed_) {
        return;
    }
    try {
        const auto wanted = bus->getEventLoopPollData();
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

void BusConnection::Link::waitForInput() {
    if (isClosed_) {
        return;
    }
    socket_.async_wait(asio::posix::stream_descriptor::wait_read,
                       [weak = weak_from_this()](const asio::error_code& error) {
                           const auto link = weak.lock();
                           if (link && !error && !link->isClosed_) {
                               link->handleMessages();
                               link->waitForInput();
                           }
                       });
}

void BusConnection::Link::waitForOutput() {
    if (!std::exchange(isWaitingForOutput_, true)) {
        socket_.async_wait(asio::posix::stream_descriptor::wait_write,
                           [weak = weak_from_this()](const asio::error_code& error) {
                               if (const auto link = weak.lock(); link && !error && !link->isClosed_) {
                                   link->isWaitingForOutput_ = false;
                                   link->handleMessages();
                               }
                           });
    }
}

// A timer that expires too early is harmless, so it is reset only for an earlier time-out.
void BusConnection::Link::waitForTimeout(std::chrono::microseconds timeout) {
    const auto when = TimePoint::clock::now() + timeout;
    if (timeout_ && *timeout_ <= when) {
        return;
    }
    timeout_ = when;
    timer_.expires_at(when);
    timer_.async_wait([weak = weak_from_this()](const asio::error_code& error) {
        if (const auto link = weak.lock(); link && !error && !link->isClosed_) {
            link->timeout_.reset();
            link->handleMessages();
        }
    });
}

} // namespace Common
