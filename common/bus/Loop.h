#pragma once

#include "common/Error.h"
#include "common/bus/Event.h"

#include <asio/awaitable.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/signal_set.hpp>
#include <cstddef>
#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

namespace Common {

/// The event loop: one thread runs it and owns all state; nothing on it may block. A blocking call runs as a
/// job on a helper thread, which posts the result back. One idle helper thread is kept.
///
/// All functions belong to the thread that calls run(), unless stated otherwise.
class Loop {
public:
    /// A call on a helper thread.
    template<typename Work>
    struct Job {
        using Result = decltype(std::declval<Work>()());
        Job(asio::io_context& loop, Work&& toDo)
            : work(std::move(toDo))
            , ended(loop) {}
        void run() noexcept {
            try {
                result = work();
            } catch (...) {
                failure = std::current_exception();
            }
        }
        Work work;
        std::optional<Result> result;
        std::exception_ptr failure;
        Event ended;
    };

    /// Throws std::system_error when no descriptors are available.
    Loop() = default;
    /// Joins the helper threads; see isHelperBusy().
    ~Loop() = default;
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    [[nodiscard]] asio::io_context& context() { return context_; }

    /// Handles events until stop() or fail(). Throws the exception given to fail().
    void run();
    void stop() { context_.stop(); }
    /// Makes run() throw an exception.
    void fail(std::exception_ptr cause);

    /// Calls the handler at the first SIGTERM or SIGINT; a second one kills the process. To be called once.
    void onTermination(std::function<void()> handler);

    /// Starts a detached coroutine, in a later turn of the loop: a bus handler, in which this may be called,
    /// holds the connection's lock. An exception is logged after `message`.
    void spawn(std::string_view message, asio::awaitable<void> coroutine);

    /// Runs work() on a helper thread. Throws Error, code Internal, when `limit` jobs have not ended, and
    /// std::system_error when no thread can be created.
    template<typename Work>
    [[nodiscard]] std::shared_ptr<Job<Work>> begin(Work work, std::size_t limit = maximumJobs) {
        auto job = std::make_shared<Job<Work>>(context_, std::move(work));
        const auto helper = takeHelper(limit);
        asio::post(helper->jobs, [this, job, helper]() mutable {
            job->run();
            asio::post(context_, [this, job = std::move(job), helper] {
                release(helper);
                job->ended.set();
            });
        });
        return job;
    }

    /// Returns the result of a job or throws its exception. Throws Error, code Internal, at the deadline; the
    /// job continues.
    template<typename Work>
    [[nodiscard]] static asio::awaitable<typename Job<Work>::Result> finish(std::shared_ptr<Job<Work>> job,
                                                                            TimePoint deadline) {
        const bool hasEnded = co_await job->ended.wait(deadline);
        if (!hasEnded) {
            throw Error(ErrorCode::Internal, "the job took too long");
        }
        if (job->failure) {
            std::rethrow_exception(job->failure);
        }
        co_return std::move(*job->result);
    }

    /// Whether a job has not ended. The destructor would wait for it, without limit if it reads a file system
    /// that does not respond; the process must then end by _Exit().
    [[nodiscard]] bool isHelperBusy() const { return !helpers_.empty(); }

    static constexpr std::size_t maximumJobs = 64;

private:
    struct Helper {
        ~Helper() { jobs.stop(); }
        asio::io_context jobs{1};
        asio::executor_work_guard<asio::io_context::executor_type> untilStopped{jobs.get_executor()};
        std::jthread thread{[this] { jobs.run(); }};
    };
    using Helpers = std::list<Helper>;
    Helpers::iterator takeHelper(std::size_t limit);
    void release(Helpers::iterator helper);

    asio::io_context context_{1};
    asio::signal_set signals_{context_};
    std::exception_ptr failure_;
    Helpers idle_;    // at most one; saves a request the start of a thread, a tenth of its time
    Helpers helpers_; // one per running job; last member, so joined before the others are destroyed
};

} // namespace Common
