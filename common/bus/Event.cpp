#include "common/bus/Event.h"

#include <algorithm>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>

namespace Common {

std::chrono::microseconds remainingUntil(TimePoint deadline) {
    using std::chrono::microseconds;
    const auto left = std::chrono::duration_cast<microseconds>(deadline - TimePoint::clock::now());
    return std::max(left, microseconds(1));
}

void Event::set() {
    isSet_ = true;
    for (auto* timer : waiting_) {
        timer->cancel();
    }
}

asio::awaitable<bool> Event::wait(TimePoint deadline) {
    if (!isSet_) {
        asio::steady_timer timer(loop_, deadline);
        const auto position = waiting_.insert(waiting_.end(), &timer);
        asio::error_code ignored; // cancelled or expired: isSet_ says which
        co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
        waiting_.erase(position);
    }
    co_return isSet_;
}

} // namespace Common
