#include "core/ZulProxy.h"

#include "common/Error.h"
#include "common/LogLine.h"
#include "common/Names.h"

#include <boost/algorithm/string/case_conv.hpp>

#include <algorithm>
#include <locale>

namespace Core {

namespace {

namespace Peer = Common::Names::Zul;

constexpr std::chrono::seconds operationTimeout{900};

// The system bus allows 128 pending replies per connection, and still counts calls that timed out in the bus
// library. A service that hangs must not use them up.
constexpr std::size_t maximumListCalls = 4;

Common::Error converted(const sdbus::Error& error) {
    return {Common::errorCodeOf(error.getName()),
            boost::algorithm::to_lower_copy(error.getMessage(), std::locale::classic())};
}

std::unique_ptr<sdbus::IConnection> connectToSystemBus() {
    try {
        return sdbus::createSystemBusConnection();
    } catch (const sdbus::Error& error) {
        throw sdbus::Error(error.getName(), "couldn't connect to the system bus: " + error.getMessage());
    }
}

// Reads a signal's one argument; a payload of another type is logged, and the signal is dropped.
template<typename Argument, typename Handlers>
void relayTo(Common::SignalSource& source, const Handlers& handlers, const std::string& signal,
             const std::string& what) {
    source.subscribe(
        Peer::objectPath, Peer::interface, signal, [&handlers, signal, what](sdbus::Message& message) {
            Argument argument;
            try {
                message >> argument;
            } catch (const sdbus::Error& error) {
                Common::logWarning() << "couldn't retrieve " << what << " from signal: " << signal;
                Common::logWarning() << error.getMessage();
                return;
            }
            for (const auto& handler : handlers) {
                handler(argument);
            }
        });
}

} // namespace

struct ZulProxy::Subscriptions {
    std::shared_ptr<sdbus::IConnection> connection; // outlives the signals
    std::unique_ptr<Common::SignalSource> signals;
};

struct ZulProxy::Link {
    Link(ZulProxy& owner, Subscriptions made)
        : connection(owner.loop_, made.connection, [&owner](const sdbus::Error& error) { owner.lost(error); })
        , signals(std::move(made.signals))
        , service(connection, Peer::service, Peer::objectPath, Peer::interface, signals.get()) {}

    Common::BusConnection connection;
    std::unique_ptr<Common::SignalSource> signals;
    Common::RemoteObject service;
    bool isLost = false;
};

struct ZulProxy::ListCall {
    explicit ListCall(asio::io_context& loop)
        : ended(loop) {}
    Common::Event ended;
    PackageList packages;
    std::exception_ptr failure;
};

ZulProxy::ZulProxy(Common::Loop& loop)
    : loop_(loop) {
    link_ = std::make_unique<Link>(*this, subscribe());
}

ZulProxy::~ZulProxy() = default;

asio::awaitable<void> ZulProxy::install(std::string packagePath) {
    const std::map<std::string, sdbus::Variant> options;
    return callOperation(Peer::install, std::move(packagePath), options);
}

asio::awaitable<void> ZulProxy::remove(std::string packageId) {
    return callOperation(Peer::remove, std::move(packageId));
}

asio::awaitable<ZulProxy::PackageList> ZulProxy::getPackageList(Common::TimePoint deadline) {
    auto call = nextList_;
    if (!call) {
        call = std::make_shared<ListCall>(loop_.context());
        if (listCalls_ < maximumListCalls) {
            ++listCalls_;
            loop_.spawn("couldn't list packages", listPackages(call));
        } else {
            nextList_ = call;
        }
    }
    return packagesOf(std::move(call), deadline);
}

asio::awaitable<ZulProxy::PackageList> ZulProxy::packagesOf(std::shared_ptr<ListCall> call,
                                                            Common::TimePoint deadline) {
    const bool isListed = co_await call->ended.wait(deadline);
    if (!isListed) {
        throw Common::Error(Common::ErrorCode::Internal, "method call timed out");
    }
    if (call->failure) {
        std::rethrow_exception(call->failure);
    }
    co_return call->packages;
}

template<typename... Arguments>
asio::awaitable<void> ZulProxy::callOperation(std::string method, Arguments... arguments) {
    try {
        Common::RemoteObject* object =
            co_await service(Common::TimePoint::clock::now() + Common::defaultTimeout);
        co_await object->call<>(method, operationTimeout, arguments...);
    } catch (const sdbus::Error& error) {
        throw converted(error);
    }
}

asio::awaitable<void> ZulProxy::listPackages(std::shared_ptr<ListCall> call) {
    using Packages = std::vector<Common::PackageProperties>;
    try {
        Common::RemoteObject* object =
            co_await service(Common::TimePoint::clock::now() + Common::defaultTimeout);
        auto [packages] = co_await object->call<Packages>(Peer::getPackageList, Common::defaultTimeout);
        call->packages = std::make_shared<const Packages>(std::move(packages));
    } catch (const sdbus::Error& error) {
        call->failure = std::make_exception_ptr(converted(error));
    } catch (...) {
        call->failure = std::current_exception();
    }
    --listCalls_;
    call->ended.set();
    if (nextList_) {
        ++listCalls_;
        loop_.spawn("couldn't list packages", listPackages(std::exchange(nextList_, nullptr)));
    }
}

// Runs on the main thread before the loop runs, later on a helper thread.
ZulProxy::Subscriptions ZulProxy::subscribe() {
    Subscriptions made{connectToSystemBus(), nullptr};
    try {
        made.signals = std::make_unique<Common::SignalSource>(*made.connection, Peer::service, [this] {
            if (appeared_) {
                appeared_();
            }
        });
        using Common::PackageProperties;
        relayTo<PackageProperties>(*made.signals, installed_, Peer::packageInstalled, "package");
        relayTo<PackageProperties>(*made.signals, upgraded_, Peer::packageUpgraded, "package");
        relayTo<std::string>(*made.signals, removed_, Peer::packageRemoved, "package id");
    } catch (const sdbus::Error& error) {
        Common::logError() << "couldn't subscribe to ZUL signal";
        Common::logError() << error.getMessage();
    }
    return made;
}

void ZulProxy::lost(const sdbus::Error& error) {
    Common::logError() << "lost the connection to " << Peer::service << ": " << error.getMessage();
    link_->isLost = true;
    connecting_ = std::make_shared<Common::Event>(loop_.context());
    loop_.spawn("couldn't reconnect", reconnect());
}

// Tries at once, and when a call needs the connection or some time has passed.
asio::awaitable<void> ZulProxy::reconnect() {
    using std::chrono::seconds;
    for (seconds pause{1}; link_->isLost; pause = std::min(pause * 2, seconds(30))) {
        const auto attempt = connecting_;
        try {
            // Must start even if jobs that wait for a file system have reached the limit.
            const auto job = loop_.begin([this] { return subscribe(); }, 2 * Common::Loop::maximumJobs);
            auto made =
                co_await Common::Loop::finish(job, Common::TimePoint::clock::now() + Common::defaultTimeout);
            link_ = std::make_unique<Link>(*this, std::move(made));
            Common::logWarning() << "connected to " << Peer::service << " again";
        } catch (const std::exception&) {
            // The loss has been reported; a call that needs the connection gets an error.
        }
        const auto needed = needed_ = std::make_shared<Common::Event>(loop_.context());
        connecting_.reset();
        attempt->set();
        if (link_->isLost) {
            co_await needed->wait(Common::TimePoint::clock::now() + pause);
            if (!connecting_) {
                connecting_ = std::make_shared<Common::Event>(loop_.context());
            }
        }
    }
    if (appeared_) {
        appeared_();
    }
}

asio::awaitable<Common::RemoteObject*> ZulProxy::service(Common::TimePoint deadline) {
    if (link_->isLost) {
        if (!connecting_) {
            connecting_ = std::make_shared<Common::Event>(loop_.context());
            needed_->set();
        }
        const auto attempt = connecting_;
        co_await attempt->wait(deadline);
    }
    if (link_->isLost) {
        throw sdbus::Error("org.freedesktop.DBus.Error.Disconnected", "Not connected to the system bus");
    }
    co_return &link_->service;
}

} // namespace Core
