#include "common/BusClient.h"

#include "common/Guard.h"

namespace Common {

namespace {

std::unique_ptr<sdbus::IConnection> connect(Bus bus) {
    return bus == Bus::Session ? sdbus::createSessionBusConnection() : sdbus::createSystemBusConnection();
}

} // namespace

BusClient::BusClient(BusEndpoint endpoint)
    : endpoint_(std::move(endpoint))
    , connection_(connect(endpoint_.bus))
    , proxy_(sdbus::createProxy(*connection_, endpoint_.service, endpoint_.objectPath)) {}

BusClient::~BusClient() {
    if (loop_.joinable()) {
        connection_->leaveEventLoop();
        loop_.join();
    }
    proxy_->unregister();
}

void BusClient::start(const std::vector<BusSubscription>& subscriptions) {
    for (const auto& subscription : subscriptions) {
        proxy_->registerSignalHandler(endpoint_.interface, subscription.signal,
                                      [subscription](sdbus::Signal& message) {
                                          guarded("couldn't handle signal: " + subscription.signal,
                                                  [&] { subscription.handler(message); });
                                      });
    }
    proxy_->finishRegistration();
    loop_ = std::thread([this] { runLoop(); });
}

void BusClient::runLoop() noexcept {
    try {
        connection_->enterEventLoop();
    } catch (const std::exception& error) {
        logError() << "lost the connection to " << endpoint_.service << ": " << error;
    }
}

} // namespace Common
