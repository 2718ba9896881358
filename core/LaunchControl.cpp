#include "core/LaunchControl.h"

#include "common/LogLine.h"
#include "common/Names.h"

#include <algorithm>

namespace Core {

namespace {

namespace Peer = Common::Names::RuntimeManager;

sdbus::Error refusal(const sdbus::Error& cause, const char* text) {
    Common::logError() << cause.getMessage();
    return sdbus::Error(Common::Names::Vendara::error, text);
}

} // namespace

LaunchControl::LaunchControl(Common::BusConnection& session) try
    : loop_(session.loop())
    , signals_(session, Peer::service)
    , intents_(session, Peer::service, Peer::intentsPath, Peer::intentsInterface, &signals_)
    , control_(session, Peer::service, Peer::controlPath, Peer::controlInterface, &signals_) {
    signals_.subscribe(Peer::controlPath, Peer::controlInterface, Peer::terminated,
                       [this](sdbus::Message& signal) { terminated(signal); });
} catch (const sdbus::Error& error) {
    throw refusal(error, "Couldn't subscribe to RuntimeManager signal");
}

asio::awaitable<void> LaunchControl::startApplication(std::string packageId, Common::TimePoint deadline) {
    const std::map<std::string, sdbus::Variant> hints{{Peer::preferredHandler, sdbus::Variant(packageId)}};
    const std::map<std::string, sdbus::Variant> parameters;
    try {
        co_await intents_.call<>(Peer::invokeIntent, Common::remainingUntil(deadline), Peer::startIntent,
                                 hints, parameters);
    } catch (const sdbus::Error& error) {
        throw refusal(error, "Failed to start application");
    }
}

asio::awaitable<void> LaunchControl::restartApplication(std::string packageId, Common::TimePoint deadline) {
    const auto& known = database();
    const auto location = known ? *known : ZUL::DatabaseLocation();
    auto& waiting = location.hasPreparedNextVersion(packageId) ? afterUpgrade_ : afterTermination_;
    waiting.push_back(packageId);
    if (waiting.size() > maximumRestarts) {
        Common::logWarning() << "dropped the oldest of too many restarts: " << waiting.front();
        waiting.pop_front();
    }
    if (&waiting == &afterUpgrade_) {
        handler_(packageId);
    }
    try {
        co_await control_.call<>(Peer::terminate, Common::remainingUntil(deadline), packageId);
    } catch (const sdbus::Error& error) {
        throw refusal(error, "Failed to terminate application");
    }
}

void LaunchControl::terminated(sdbus::Message& signal) {
    std::string packageId;
    try {
        signal >> packageId;
    } catch (const sdbus::Error& error) {
        Common::logWarning() << "couldn't retrieve package id from signal: " << Peer::terminated;
        Common::logWarning() << error.getMessage();
        return;
    }
    startAgain(afterTermination_, packageId);
}

void LaunchControl::packageUpgraded(const std::string& packageId) { startAgain(afterUpgrade_, packageId); }

void LaunchControl::endRestarts(const std::string& packageId, bool isInstalled) {
    for (auto count = std::erase(afterUpgrade_, packageId); isInstalled && count > 0; --count) {
        loop_.spawn("couldn't start an application again", start(packageId));
    }
}

const std::optional<ZUL::DatabaseLocation>& LaunchControl::database() {
    if (auto location = ZUL::DatabaseLocation::ifReadable()) {
        database_ = std::move(location);
    }
    return database_;
}

void LaunchControl::startAgain(Restarts& waiting, const std::string& packageId) {
    const auto position = std::find(waiting.begin(), waiting.end(), packageId);
    if (position != waiting.end()) {
        waiting.erase(position);
        loop_.spawn("couldn't start an application again", start(packageId));
    }
}

asio::awaitable<void> LaunchControl::start(std::string packageId) {
    try {
        co_await startApplication(packageId, Common::TimePoint::clock::now() + Common::defaultTimeout);
    } catch (const sdbus::Error& error) {
        Common::logError() << error.getMessage();
    }
}

} // namespace Core
