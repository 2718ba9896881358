#include "core/LaunchControl.h"

#include "common/LogLine.h"
#include "common/Names.h"
#include "core/zul/Database.h"

#include <algorithm>

namespace Core {

namespace {

namespace Peer = Common::Names::RuntimeManager;

[[noreturn]] void fail(const sdbus::Error& cause, const char* text) {
    Common::logError() << cause.getMessage();
    throw sdbus::Error(Common::Names::Vendara::error, text);
}

} // namespace

LaunchControl::LaunchControl(std::unique_ptr<Common::BusClient> intents,
                             std::unique_ptr<Common::BusClient> control)
    : intents_(std::move(intents))
    , starts_([this](const std::string& packageId) {
        try {
            startApplication(packageId);
        } catch (const sdbus::Error& error) {
            Common::logError() << error.getMessage();
        }
    })
    , control_(std::move(control)) {
    intents_->start();
    try {
        control_->start({{Peer::terminated, [this](sdbus::Signal& signal) { terminated(signal); }}});
    } catch (const sdbus::Error& error) {
        fail(error, "Couldn't subscribe to RuntimeManager signal");
    }
}

void LaunchControl::startApplication(const std::string& packageId) {
    const std::map<std::string, sdbus::Variant> hints{{Peer::preferredHandler, sdbus::Variant(packageId)}};
    const std::map<std::string, sdbus::Variant> parameters;
    try {
        intents_->call(Peer::invokeIntent, {}, Peer::startIntent, hints, parameters);
    } catch (const sdbus::Error& error) {
        fail(error, "Failed to start application");
    }
}

void LaunchControl::restartApplication(const std::string& packageId) {
    remember(packageId);
    try {
        control_->call(Peer::terminate, {}, packageId);
    } catch (const sdbus::Error& error) {
        fail(error, "Failed to terminate application");
    }
}

// Puts the package into one of the lists. The database is read without the lock; an upgrade reported
// meanwhile may be the very one that was seen prepared, so the database is then asked again.
void LaunchControl::remember(const std::string& packageId) {
    std::unique_lock guard(lock_);
    for (;;) {
        const auto before = upgrades_;
        guard.unlock();
        const bool prepared = ZUL::Database().hasPreparedNextVersion(packageId);
        guard.lock();
        if (!prepared || upgrades_ == before) {
            (prepared ? afterUpgrade_ : afterTermination_).push_back(packageId);
            return;
        }
    }
}

void LaunchControl::terminated(sdbus::Signal& signal) {
    std::string packageId;
    try {
        signal >> packageId;
    } catch (const sdbus::Error& error) {
        Common::logWarning() << "couldn't retrieve package id from signal: " << Peer::terminated;
        Common::logWarning() << error.getMessage();
        return;
    }
    const std::lock_guard guard(lock_);
    startAgain(afterTermination_, packageId);
}

void LaunchControl::packageUpgraded(const std::string& packageId) {
    const std::lock_guard guard(lock_);
    ++upgrades_;
    startAgain(afterUpgrade_, packageId);
}

// Under the lock: the queue only takes note.
void LaunchControl::startAgain(std::vector<std::string>& waiting, const std::string& packageId) {
    const auto position = std::find(waiting.begin(), waiting.end(), packageId);
    if (position != waiting.end()) {
        waiting.erase(position);
        starts_.add(packageId);
    }
}

} // namespace Core
