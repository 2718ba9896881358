#include "common/BusClient.h"

#include "common/Guard.h"
#include "common/Names.h"
#include "common/StartThread.h"

#include <future>

namespace Common {

namespace MessageBus = Names::MessageBus;

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
    try {
        proxy_->finishRegistration();
    } catch (...) {
        proxy_->unregister(); // or the bus would go on collecting signals that nobody reads
        throw;
    }
    startLoop();
}

// A call made before the loop runs would keep the connection to itself until its reply, and every other call
// out. So this returns when the loop has delivered something: the bus's answer to a question sent beforehand.
void BusClient::startLoop() {
    const auto running = std::make_shared<std::promise<void>>();
    const auto bus = sdbus::createProxy(*connection_, MessageBus::service, MessageBus::objectPath);
    bus->callMethodAsync("GetId")
        .onInterface(MessageBus::interface)
        .uponReplyInvoke(
            [running](const sdbus::Error* /*error*/, const std::string& /*id*/) { running->set_value(); });
    loop_ = startThread([this] { runLoop(); });
    running->get_future().wait_for(std::chrono::seconds(25));
}

void BusClient::runLoop() noexcept {
    try {
        connection_->enterEventLoop();
    } catch (const std::exception& error) {
        logError() << "lost the connection to " << endpoint_.service << ": " << error;
    }
}

} // namespace Common
