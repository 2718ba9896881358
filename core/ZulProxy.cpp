#include "core/ZulProxy.h"

#include "common/Error.h"
#include "common/LogLine.h"
#include "common/Names.h"

#include <cctype>

namespace Core {

namespace {

namespace Peer = Common::Names::Zul;

constexpr std::chrono::seconds operationTimeout{900};

Common::BusEndpoint endpoint() {
    return {Common::Bus::System, Peer::service, Peer::objectPath, Peer::interface};
}

Common::Error converted(const sdbus::Error& error) {
    std::string message = error.getMessage();
    for (auto& character : message) {
        character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    }
    return {Common::errorCodeOf(error.getName()), message};
}

template<typename Call>
auto convertingErrors(Call&& call) {
    try {
        return call();
    } catch (const sdbus::Error& error) {
        throw converted(error);
    }
}

// Reads a signal's one argument; a payload of another type is logged, and the signal is dropped.
template<typename Argument, typename Handlers>
Common::BusSubscription relayTo(const Handlers& handlers, const std::string& signal,
                                const std::string& what) {
    return {signal, [&handlers, signal, what](sdbus::Signal& message) {
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
            }};
}

} // namespace

ZulProxy::ZulProxy()
    : calls_(endpoint())
    , signals_(endpoint()) {
    calls_.start();
}

void ZulProxy::addPackageInstalledHandler(PackageHandler handler) {
    packageInstalledHandlers_.push_back(std::move(handler));
}

void ZulProxy::addPackageUpgradedHandler(PackageHandler handler) {
    packageUpgradedHandlers_.push_back(std::move(handler));
}

void ZulProxy::addPackageRemovedHandler(PackageIdHandler handler) {
    packageRemovedHandlers_.push_back(std::move(handler));
}

void ZulProxy::start() {
    using Common::PackageProperties;
    try {
        signals_.start(
            {relayTo<PackageProperties>(packageInstalledHandlers_, Peer::packageInstalled, "package"),
             relayTo<PackageProperties>(packageUpgradedHandlers_, Peer::packageUpgraded, "package"),
             relayTo<std::string>(packageRemovedHandlers_, Peer::packageRemoved, "package id")});
    } catch (const sdbus::Error& error) {
        Common::logError() << "couldn't subscribe to ZUL signal";
        Common::logError() << error.getMessage();
    }
}

void ZulProxy::install(const std::string& packagePath) {
    const std::map<std::string, sdbus::Variant> options;
    convertingErrors([&] { calls_.call(Peer::install, operationTimeout, packagePath, options); });
}

void ZulProxy::remove(const std::string& packageId) {
    convertingErrors([&] { calls_.call(Peer::remove, operationTimeout, packageId); });
}

std::vector<Common::PackageProperties> ZulProxy::getPackageList() {
    return convertingErrors([&] {
        std::vector<Common::PackageProperties> packages;
        auto reply = calls_.call(Peer::getPackageList, {});
        reply >> packages;
        return packages;
    });
}

} // namespace Core
