#include "common/bus/CallerIdentity.h"

#include "common/Names.h"

namespace Common {

namespace Peer = Names::Identification;

CallerIdentity::CallerIdentity(std::string busName, std::string firstIdentity, std::string secondIdentity)
    : busName_(std::move(busName))
    , firstIdentity_(std::move(firstIdentity))
    , secondIdentity_(std::move(secondIdentity))
    , key_(firstIdentity_ + "|" + secondIdentity_) {}

bool CallerIdentity::isSameApplication(const CallerIdentity& other) const {
    return firstIdentity_ == other.firstIdentity_ && secondIdentity_ == other.secondIdentity_;
}

CallerIdentification::CallerIdentification(BusConnection& session)
    : session_(session)
    , owner_(session, Peer::service)
    , service_(session, Peer::service, Peer::objectPath, Peer::interface, &owner_) {}

asio::awaitable<CallerIdentity> CallerIdentification::identify(std::string busName, TimePoint deadline) {
    for (;;) {
        const auto bus = session_.sharedBus();
        try {
            auto [first, second] = co_await service_.call<std::string, std::string>(
                Peer::identifyByBusName, remainingUntil(deadline), busName);
            co_return CallerIdentity(busName, std::move(first), std::move(second));
        } catch (const sdbus::Error&) {
            if (bus == session_.sharedBus()) {
                throw Error(ErrorCode::Internal, "couldn't identify the sender: " + busName);
            }
            // The call was lost with the former connection.
        }
    }
}

} // namespace Common
