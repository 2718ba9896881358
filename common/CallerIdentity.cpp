#include "common/CallerIdentity.h"

#include "common/BusClient.h"
#include "common/Error.h"
#include "common/LogLine.h"
#include "common/Names.h"

namespace Common {

CallerIdentity::CallerIdentity(bool onSessionBus, std::string busName, std::string firstIdentity,
                               std::string secondIdentity)
    : onSessionBus_(onSessionBus ? 1 : 0)
    , busName_(std::move(busName))
    , firstIdentity_(std::move(firstIdentity))
    , secondIdentity_(std::move(secondIdentity))
    , key_(firstIdentity_ + "|" + secondIdentity_) {}

bool CallerIdentity::isSameApplication(const CallerIdentity& other) const {
    return firstIdentity_ == other.firstIdentity_ && secondIdentity_ == other.secondIdentity_;
}

CallerIdentity identifyByBusName(std::string busName, bool onSessionBus) {
    namespace Peer = Names::Identification;
    try {
        BusClient client(
            {onSessionBus ? Bus::Session : Bus::System, Peer::service, Peer::objectPath, Peer::interface});
        client.start();
        auto reply = client.call(Peer::identifyByBusName, {}, busName);
        std::string first;
        std::string second;
        reply >> first >> second;
        return {onSessionBus, std::move(busName), std::move(first), std::move(second)};
    } catch (const std::exception&) {
        throw Error(ErrorCode::Internal, "couldn't identify the sender: " + busName);
    }
}

bool isSameApplicationStillOnBus(const CallerIdentity& initiator) {
    try {
        return identifyByBusName(initiator.busName(), initiator.onSessionBus()).isSameApplication(initiator);
    } catch (const Error& error) {
        logWarning() << error;
        return false;
    }
}

} // namespace Common
