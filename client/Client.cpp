#include "client/Client.h"

#include "client/FollowedOperations.h"
#include "common/BusText.h"
#include "common/Names.h"
#include "common/bus/RemoteObject.h"
#include "common/bus/SignalSource.h"
#include "common/bus/WireTypes.h"

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <csignal>
#include <filesystem>
#include <utility>

namespace Vendara {

namespace Own = Common::Names::Vendara;

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using PropertyMap = std::map<std::string, sdbus::Variant>;

// The bus takes up to two minutes to start the service, which replies within 25 seconds.
constexpr std::chrono::microseconds callLimit = seconds(150);
// How long to wait for a status before the service is queried; doubled after each reply.
constexpr milliseconds firstPatience = seconds(1);
constexpr milliseconds lastPatience = std::chrono::minutes(1);
// The same after the announcement that ends an operation of another connection.
constexpr milliseconds shortPatience(100);
constexpr auto peerInterface = "org.freedesktop.DBus.Peer";

// The service passes the version on as os-release(5) has it, which may be in quotes.
std::string withoutQuotes(const std::string& text) {
    const bool quoted =
        text.size() >= 2 && text.front() == text.back() && (text.front() == '"' || text.front() == '\'');
    return quoted ? text.substr(1, text.size() - 2) : text;
}

Properties propertiesFrom(const PropertyMap& map) {
    try {
        Properties properties{map.at(Own::architecture).get<std::string>(),
                              withoutQuotes(map.at(Own::quenraVersion).get<std::string>()),
                              map.at(Own::operations).get<std::vector<Operation>>(),
                              map.at(Own::completedOperations).get<std::vector<Operation>>(),
                              map.at(Own::packages).get<std::vector<Package>>()};
        // An operation that failed stays in the first list until the next one begins.
        std::erase_if(properties.operations, [&](const auto& operation) {
            const auto& completed = properties.completedOperations;
            return std::any_of(completed.begin(), completed.end(),
                               [&](const auto& other) { return other.id == operation.id; });
        });
        return properties;
    } catch (const sdbus::Error& error) {
        throw CallRefused("unexpected properties of the service: " + error.getMessage());
    } catch (const std::out_of_range&) {
        throw CallRefused("the service's properties are incomplete");
    }
}

// For a program that has no listener.
class StatusListener final : public Listener {
public:
    explicit StatusListener(std::function<void(const Operation&)> changed)
        : changed_(std::move(changed)) {}
    void changed(const Operation& operation) override {
        if (changed_) {
            changed_(operation);
        }
    }
    void lost(const Operation& operation) override {
        throw ServiceAbsent(operation.packageId +
                            ": the service no longer lists the operation; its result is unknown");
    }
    void earlier(const Operation& operation) override { changed(operation); }

private:
    std::function<void(const Operation&)> changed_;
};

bool isIgnored(int signal) {
    struct sigaction action {};
    return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

} // namespace

class Client::Session {
public:
    Session(Listener& listener, const std::vector<int>& signals)
        : listener_(listener)
        , operations_(listener)
        , connection_(loop_, sdbus::createSessionBusConnection(),
                      [this](const sdbus::Error& error) {
                          fail(
                              ServiceAbsent("lost the connection to the session bus: " + error.getMessage()));
                      })
        , source_(
              connection_, Own::service, [this] { presenceChanged(true); },
              [this] { presenceChanged(false); })
        , service_(connection_, Own::service, Own::objectPath, Own::interface, &source_)
        , wasStarted_(!source_.hasOwner()) {
        onSignal(Own::operationStatusChanged, &Session::update);
        onSignal(Own::packageInstalled, &Session::installed);
        onSignal(Own::packageUpgraded, &Session::upgraded);
        onSignal(Own::packageRemoved, &Session::removed);
        for (const int signal : signals) {
            if (!isIgnored(signal)) {
                interruption_.add(signal);
            }
        }
        interruption_.async_wait([this](const asio::error_code& error, int signal) {
            if (!error) {
                fail(Interrupted(signal));
            }
        });
    }

    template<typename... Results, typename... Arguments>
    std::tuple<Results...> call(const std::string& method, const Arguments&... arguments) {
        return run(service_.call<Results...>(method, callLimit, arguments...));
    }

    template<typename... Results>
    std::tuple<Results...> request(const std::string& method, const std::string& argument) {
        if (!Common::isBusText(argument)) {
            throw CallRefused("not valid UTF-8, or with a character that D-Bus does not allow");
        }
        return call<Results...>(method, argument);
    }

    // The first status arrives before the reply.
    Operation begin(const std::string& method, const std::string& argument) {
        auto operation = std::get<0>(request<Operation>(method, argument));
        update(operation);
        return operation;
    }

    // An operation in the reply may end before attach(). Announcements received from now on count for it;
    // earlier ones, still queued, do not.
    Properties properties() {
        confirm();
        operations_.forgetAnnouncements();
        auto properties = propertiesFrom(std::get<0>(call<PropertyMap>(Own::getAllProperties)));
        if (!properties.completedOperations.empty()) {
            confirm();
        }
        return properties;
    }

    void attach(const Operation& operation) {
        update(operation);
        operations_.attach(operation);
    }

    std::vector<Operation> pending() const { return operations_.pending(); }

    bool follow() {
        if (!operations_.allEnded()) {
            if (!source_.hasOwner()) { // the service left right after its reply
                throwUnknownResult();
            }
            isFollowing_ = true;
            wait(firstPatience);
            if (!std::exchange(isAsking_, true)) {
                loop_.spawn("couldn't ask the service", askAfterSilence());
            }
            tickLater();
            runLoop();
            while (isQuerying_) { // its reply, which reports completed operations once, would be lost
                runLoop();
            }
            isFollowing_ = false;
        }
        confirm();
        return !operations_.hasFailed();
    }

    // The ping has the bus start the service.
    [[noreturn]] void listen() {
        Common::RemoteObject peer(connection_, Own::service, Own::objectPath, peerInterface, &source_);
        run(peer.call<>("Ping", callLimit));
        for (;;) {
            runLoop();
        }
    }

private:
    template<typename... Results>
    std::tuple<Results...> run(asio::awaitable<std::tuple<Results...>> work) {
        std::tuple<Results...> results;
        std::exception_ptr failure;
        asio::co_spawn(loop_.context(), std::move(work),
                       [&](std::exception_ptr error, std::tuple<Results...> values) {
                           failure = std::move(error);
                           results = std::move(values);
                           loop_.stop();
                       });
        runLoop();
        try {
            if (failure) {
                std::rethrow_exception(failure);
            }
        } catch (const sdbus::Error& error) {
            throwFor(error);
        }
        hasReplied_ = true;
        return results;
    }

    // After sending the end of an operation, the service checks that its receiver is still on the bus, and
    // reports the end again if not. When it replies to a ping, this check is done, and all signals sent
    // before have arrived. An interruption or a lost bus must not discard them: the next call throws for it.
    void confirm() {
        if (!source_.hasOwner()) {
            return;
        }
        try {
            run(ping(source_.owner()));
        } catch (const ServiceAbsent&) {
        } catch (const Interrupted&) {
        }
    }

    // The owner is a copy: it may leave before the coroutine runs.
    asio::awaitable<std::tuple<>> ping(std::string owner) {
        try {
            Common::RemoteObject peer(connection_, owner, Own::objectPath, peerInterface);
            co_await peer.call<>("Ping", seconds(1));
        } catch (const sdbus::Error&) {
            // A failed ping must not discard what was received.
        }
        co_return std::tuple<>();
    }

    // Runs until the loop is stopped. After an exception the loop stays stopped: its handlers refer to stack
    // frames that no longer exist.
    void runLoop() {
        loop_.run();
        loop_.context().restart();
    }

    template<typename Cause>
    void fail(Cause cause) {
        loop_.fail(std::make_exception_ptr(std::move(cause)));
    }

    // An exception of a handler would only be logged.
    template<typename Call>
    void guarded(const Call& call) {
        try {
            call();
        } catch (...) {
            loop_.fail(std::current_exception());
        }
    }

    // All error replies of the service have one name; the bus reports an absent service by other names.
    [[noreturn]] void throwFor(const sdbus::Error& error) const {
        const std::string prefix = "org.freedesktop.DBus.Error.";
        const auto isOneOf = [&](std::initializer_list<const char*> names) {
            return std::any_of(names.begin(), names.end(),
                               [&](const char* name) { return error.getName() == prefix + name; });
        };
        const bool isNoReply = isOneOf({"NoReply"});
        if (error.getName().starts_with(prefix + "Spawn.Child") ||
            (isNoReply && wasStarted_ && !hasReplied_)) {
            throw ServiceAbsent("the service ended during its start; see its log");
        }
        if (isNoReply) {
            throw ServiceAbsent("the service ended before it replied");
        }
        if (error.getName() != Own::error &&
            (!source_.hasOwner() ||
             isOneOf({"ServiceUnknown", "NameHasNoOwner", "Disconnected", "TimedOut", "Timeout"}))) {
            throw ServiceAbsent(error.getMessage());
        }
        const bool isUnreadable = error.getName().starts_with("System.Error.");
        throw CallRefused((isUnreadable ? "unexpected reply of the service: " : "") + error.getMessage());
    }

    template<typename Argument>
    void onSignal(const std::string& signal, void (Session::*handler)(const Argument&)) {
        source_.subscribe(Own::objectPath, Own::interface, signal, [this, handler](sdbus::Message& message) {
            Argument argument;
            message >> argument;
            guarded([&] { (this->*handler)(argument); });
        });
    }

    void installed(const Package& package) {
        announced(OperationType::Install, package.id);
        listener_.installed(package);
    }
    void upgraded(const Package& package) {
        announced(OperationType::Upgrade, package.id);
        listener_.upgraded(package);
    }
    void removed(const std::string& packageId) {
        announced(OperationType::Remove, packageId);
        listener_.removed(packageId);
    }

    void announced(OperationType type, const std::string& packageId) {
        if (operations_.announced(type, packageId)) {
            wait(shortPatience);
        }
    }

    // A service that has ended has lost its operations. One that reconnects to the bus continues them.
    [[noreturn]] static void throwUnknownResult() {
        throw ServiceAbsent("the service left the bus; the result of the operation is unknown");
    }

    void presenceChanged(bool present) {
        guarded([&] {
            if (!present && !operations_.allEnded()) {
                throwUnknownResult();
            }
            listener_.serviceChanged(present);
        });
    }

    // Statuses of operations requested by this connection. They may repeat the status in the reply.
    void update(const Operation& news) {
        if (operations_.update(news)) {
            wait(firstPatience);
            stopAtEnd();
        }
    }

    // Until the service is queried.
    void wait(milliseconds patience) {
        patience_ = patience;
        silence_.expires_after(patience_);
    }

    asio::awaitable<void> askAfterSilence() {
        for (;;) {
            asio::error_code moved;
            co_await silence_.async_wait(asio::redirect_error(asio::use_awaitable, moved));
            if (moved) {
                continue;
            }
            if (!isFollowing_) { // the reply, which reports completed operations once, would be lost
                silence_.expires_at(Common::TimePoint::max());
                continue;
            }
            guarded([&] { operations_.reportWaiting(); });
            isQuerying_ = true;
            try {
                const auto [map] = co_await service_.call<PropertyMap>(Own::getAllProperties, callLimit);
                const auto properties = propertiesFrom(map);
                guarded([&] {
                    if (operations_.compare(properties)) {
                        patience_ = firstPatience;
                    }
                });
            } catch (const std::runtime_error&) {
                // The service is queried again.
            }
            isQuerying_ = false;
            stopAtEnd();
            wait(std::min(patience_ * 2, operations_.mayFailUnnoticed() ? firstPatience : lastPatience));
        }
    }

    void tickLater() {
        ticker_.expires_after(milliseconds(100));
        ticker_.async_wait([this](const asio::error_code& error) {
            guarded([&] {
                if (!error && isFollowing_ && listener_.tick()) {
                    tickLater();
                }
            });
        });
    }

    void stopAtEnd() {
        if (isFollowing_ && operations_.allEnded()) {
            loop_.stop();
        }
    }

    Listener& listener_;
    FollowedOperations operations_;
    Common::Loop loop_;
    Common::BusConnection connection_;
    Common::SignalSource source_;
    Common::RemoteObject service_;
    asio::signal_set interruption_{loop_.context()};
    asio::steady_timer silence_{loop_.context(), Common::TimePoint::max()}; // until the service is queried
    asio::steady_timer ticker_{loop_.context()};
    milliseconds patience_ = firstPatience;
    bool wasStarted_;         // by a call of this client
    bool hasReplied_ = false; // to any call
    bool isAsking_ = false;
    bool isFollowing_ = false;
    bool isQuerying_ = false; // after silence
};

std::unique_ptr<Client::Session> Client::connect(Listener& listener, const std::vector<int>& signals) {
    try {
        return std::make_unique<Session>(listener, signals);
    } catch (const sdbus::Error& error) {
        throw ServiceAbsent("there is no session bus: " + error.getMessage());
    }
}

Client::Client(Listener& listener, const std::vector<int>& signals)
    : session_(connect(listener, signals)) {}

Client::Client(std::function<void(const Operation&)> changed)
    : listener_(std::make_unique<StatusListener>(std::move(changed)))
    , session_(connect(*listener_, {})) {}

Client::~Client() = default;

Operation Client::install(const std::string& path) {
    std::error_code error;
    const auto absolute = std::filesystem::absolute(path, error);
    return session_->begin(Own::install, error ? path : absolute.native());
}
Operation Client::remove(const std::string& packageId) { return session_->begin(Own::remove, packageId); }
void Client::start(const std::string& packageId) { session_->request<>(Own::start, packageId); }
void Client::restart(const std::string& packageId) { session_->request<>(Own::restart, packageId); }
Properties Client::properties() { return session_->properties(); }
void Client::attach(const Operation& operation) { session_->attach(operation); }
std::vector<Operation> Client::pending() const { return session_->pending(); }
bool Client::follow() { return session_->follow(); }
void Client::listen() { session_->listen(); }

} // namespace Vendara
