#pragma once

#include "common/Guard.h"
#include "common/StartThread.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace Core {

/// A thread that handles, one at a time and in their order, the items that other threads hand over. No lock
/// is held while an item is handled.
template<typename Item>
class TaskQueue {
public:
    /// @param handle  called on the queue's thread; what it throws is logged
    /// Throws Error, code Internal, when no thread is to be had.
    explicit TaskQueue(std::function<void(Item&)> handle)
        : handle_(std::move(handle))
        , thread_(Common::startThread([this] { run(); })) {}
    /// Returns when everything that was handed over has been handled and the thread has ended.
    ~TaskQueue() {
        {
            const std::lock_guard guard(lock_);
            finishing_ = true;
        }
        wakeUp_.notify_one();
        thread_.join();
    }
    TaskQueue(const TaskQueue&) = delete;
    TaskQueue& operator=(const TaskQueue&) = delete;

    /// Hands an item over and returns at once. Any thread, the queue's own included; a lock may be held.
    void add(Item item) {
        {
            const std::lock_guard guard(lock_);
            items_.push_back(std::move(item));
        }
        wakeUp_.notify_one();
    }

private:
    void run() {
        std::unique_lock guard(lock_);
        for (;;) {
            wakeUp_.wait(guard, [this] { return finishing_ || !items_.empty(); });
            if (items_.empty()) {
                return;
            }
            auto item = std::move(items_.front());
            items_.pop_front();
            guard.unlock();
            Common::guarded("couldn't handle a queued item", [&] { handle_(item); });
            guard.lock();
        }
    }

    std::function<void(Item&)> handle_;
    std::mutex lock_; // guards items_ and finishing_
    std::condition_variable wakeUp_;
    std::deque<Item> items_;
    bool finishing_ = false;
    std::thread thread_; // last: it uses all of the above
};

} // namespace Core
