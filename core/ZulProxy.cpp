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

struct ZulProxy::ListCall {
    explicit ListCall(asio::io_context& loop)
        : ended(loop) {}
    Common::Event ended;
    PackageList packages;
    std::exception_ptr failure;
};

ZulProxy::ZulProxy(Common::Loop& loop)
    : loop_(loop)
    , connection_(loop, connectToSystemBus(),
                  [](const sdbus::Error& error) {
                      Common::logError()
                          << "lost the connection to " << Peer::service << ": " << error.getMessage();
                  })
    , signals_(subscribe())
    , service_(connection_, Peer::service, Peer::objectPath, Peer::interface, signals_.get()) {
    connection_.reconnectWith(connectToSystemBus, [this] {
        Common::logWarning() << "connected to " << Peer::service << " again";
        appear();
    });
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
        co_await service_.call<>(method, operationTimeout, arguments...);
    } catch (const sdbus::Error& error) {
        throw converted(error);
    }
}

asio::awaitable<void> ZulProxy::listPackages(std::shared_ptr<ListCall> call) {
    using Packages = std::vector<Common::PackageProperties>;
    const auto asked = signals_ ? signals_->owner() : std::string();
    try {
        auto [packages] = co_await service_.call<Packages>(Peer::getPackageList, Common::defaultTimeout);
        call->packages = std::make_shared<const Packages>(std::move(packages));
        recovered_ = asked;
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

std::unique_ptr<Common::SignalSource> ZulProxy::subscribe() {
    std::unique_ptr<Common::SignalSource> signals;
    try {
        signals = std::make_unique<Common::SignalSource>(connection_, Peer::service, [this] { appear(); });
        using Common::PackageProperties;
        relayTo<PackageProperties>(*signals, installed_, Peer::packageInstalled, "package");
        relayTo<PackageProperties>(*signals, upgraded_, Peer::packageUpgraded, "package");
        relayTo<std::string>(*signals, removed_, Peer::packageRemoved, "package id");
    } catch (const sdbus::Error& error) {
        Common::logError() << "couldn't subscribe to ZUL signal";
        Common::logError() << error.getMessage();
    }
    return signals;
}

void ZulProxy::appear() {
    recovered_.clear();
    if (appeared_) {
        appeared_();
    }
}

} // namespace Core
