#include "common/bus/Lanes.h"

#include "common/LogLine.h"

namespace Common {

void Lanes::add(const std::string& key, Job job) {
    auto& lane = lanes_[key];
    lane.push_back(std::move(job));
    ++count_;
    if (lane.size() == 1) {
        loop_.spawn("couldn't run a lane of jobs", run(key));
    }
}

std::size_t Lanes::count(const std::string& key) const {
    const auto lane = lanes_.find(key);
    return lane == lanes_.end() ? 0 : lane->second.size();
}

asio::awaitable<void> Lanes::run(std::string key) {
    auto& lane = lanes_.at(key); // references stay valid when keys are added
    while (!lane.empty()) {
        try {
            co_await lane.front()();
        } catch (const std::exception& error) {
            logFailure(LogLevel::Error, "couldn't finish a job", error);
        }
        lane.pop_front();
        --count_;
    }
    lanes_.erase(key);
}

} // namespace Common
