#pragma once

#include "common/StartThread.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace Common::Rpm {

/// Runs a producer on a thread of its own, a few batches ahead of the one consumer. The producer and all that
/// it owns are used and destroyed on that thread; the destructor stops and joins it.
template<typename Batch>
class ReadAhead {
public:
    /// Fills a batch anew, one that is empty or has been used up; false when nothing follows. What it has in
    /// the batch when it throws is handed on first.
    using Producer = std::function<bool(Batch&)>;

    /// Throws Error, code Internal, when no thread is to be had.
    explicit ReadAhead(std::function<Producer()> makeProducer)
        : thread_(startThread([this, make = std::move(makeProducer)] { run(make); })) {}

    ~ReadAhead() {
        {
            const std::lock_guard lock(mutex_);
            stopped_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    /// Waits for the next batch and takes back the one before. Rethrows what the producer threw once all
    /// before it has been taken.
    /// @return false at the end
    bool next(Batch& batch) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return !ready_.empty() || ended_; });
        if (ready_.empty()) {
            if (failure_) {
                std::rethrow_exception(failure_);
            }
            return false;
        }
        spare_.push_back(std::exchange(batch, std::move(ready_.front())));
        ready_.pop_front();
        lock.unlock();
        changed_.notify_all();
        return true;
    }

private:
    static constexpr std::size_t depth = 4;

    void run(const std::function<Producer()>& makeProducer) {
        std::exception_ptr failure;
        Batch batch;
        try {
            const auto produce = makeProducer();
            while (produce(batch) && hand(batch)) {
                batch = takeSpare();
            }
        } catch (...) {
            failure = std::current_exception();
        }
        hand(batch);
        {
            const std::lock_guard lock(mutex_);
            failure_ = failure;
            ended_ = true;
        }
        changed_.notify_all();
    }

    bool hand(Batch& batch) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return ready_.size() < depth || stopped_; });
        if (stopped_) {
            return false;
        }
        ready_.push_back(std::move(batch));
        lock.unlock();
        changed_.notify_all();
        return true;
    }

    Batch takeSpare() {
        const std::lock_guard lock(mutex_);
        if (spare_.empty()) {
            return {};
        }
        auto batch = std::move(spare_.back());
        spare_.pop_back();
        return batch;
    }

    std::mutex mutex_; ///< guards all members up to the thread
    std::condition_variable changed_;
    std::deque<Batch> ready_;
    std::vector<Batch> spare_; ///< used up, for the sake of their memory
    std::exception_ptr failure_;
    bool ended_ = false;
    bool stopped_ = false;
    std::thread thread_;
};

} // namespace Common::Rpm
