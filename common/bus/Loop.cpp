#include "common/bus/Loop.h"

#include "common/Guard.h"

#include <asio/co_spawn.hpp>
#include <csignal>
#include <string>

namespace Common {

void Loop::run() {
    context_.run();
    if (failure_) {
        std::rethrow_exception(failure_);
    }
}

void Loop::fail(std::exception_ptr cause) {
    failure_ = std::move(cause);
    stop();
}

void Loop::onTermination(std::function<void()> handler) {
    signals_.add(SIGTERM);
    signals_.add(SIGINT);
    signals_.async_wait([this, handler = std::move(handler)](const asio::error_code& error, int /*number*/) {
        if (!error) {
            signals_.clear(); // restores the default: the next one kills
            handler();
        }
    });
}

void Loop::spawn(std::string_view message, asio::awaitable<void> coroutine) {
    asio::post(context_, [this, message = std::string(message), coroutine = std::move(coroutine)]() mutable {
        asio::co_spawn(context_, std::move(coroutine),
                       [message = std::move(message)](const std::exception_ptr& failure) {
                           if (failure) {
                               guarded(message, [&] { std::rethrow_exception(failure); });
                           }
                       });
    });
}

Loop::Helpers::iterator Loop::takeHelper(std::size_t limit) {
    if (helpers_.size() >= limit) {
        throw Error(ErrorCode::Internal, "too many jobs have not ended");
    }
    if (idle_.empty()) {
        idle_.emplace_back();
    }
    helpers_.splice(helpers_.end(), idle_);
    return std::prev(helpers_.end());
}

void Loop::release(Helpers::iterator helper) {
    idle_.splice(idle_.end(), helpers_, helper);
    idle_.resize(1);
}

} // namespace Common
