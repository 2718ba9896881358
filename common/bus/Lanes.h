#pragma once

#include "common/bus/Loop.h"

#include <deque>
#include <functional>
#include <string>
#include <unordered_map>

namespace Common {

/// Runs the coroutines of each key one after another, in the order they were added. Coroutines of different
/// keys do not wait for each other. Exceptions are logged. Loop's thread only.
class Lanes {
public:
    using Job = std::function<asio::awaitable<void>()>;

    explicit Lanes(Loop& loop)
        : loop_(loop) {}
    Lanes(const Lanes&) = delete;
    Lanes& operator=(const Lanes&) = delete;

    void add(const std::string& key, Job job);

    /// The number of jobs of the key that have not ended.
    [[nodiscard]] std::size_t count(const std::string& key) const;
    /// The same for all keys.
    [[nodiscard]] std::size_t count() const { return count_; }

private:
    asio::awaitable<void> run(std::string key);

    Loop& loop_;
    std::unordered_map<std::string, std::deque<Job>> lanes_; // the first job of each is running
    std::size_t count_ = 0;
};

} // namespace Common
