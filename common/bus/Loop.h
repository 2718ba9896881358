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

/// The event loop: one thread runs it and owns all state; nothing on it waits. What must block runs on a
/// helper thread of its own and posts its result back. One helper thread that has no job is kept.
///
/// Everything belongs to the thread that calls run(), unless a function says something else.
class Loop {
public:
    /// Something that a helper thread does.
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

    /// Throws std::system_error when the system has no more descriptors.
    Loop() = default;
    /// Joins the helper threads; see isHelperBusy().
    ~Loop() = default;
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    [[nodiscard]] asio::io_context& context() { return context_; }

    /// Handles events until stop() or fail(). Throws what fail() was given.
    void run();
    void stop() { context_.stop(); }
    /// Ends run() with an exception.
    void fail(std::exception_ptr cause);

    /// Calls the handler at the first SIGTERM or SIGINT; a second one kills the process. Once.
    void onTermination(std::function<void()> handler);

    /// Starts a coroutine whose end is not waited for, in a later turn of the loop: never inside a handler of
    /// a bus, which holds that connection's lock. An exception is logged after `message`.
    void spawn(std::string_view message, asio::awaitable<void> coroutine);

    /// Has a helper thread run work(). Throws Error, code Internal, when so many jobs have not ended, and
    /// std::system_error when the system has no more threads.
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
    /// job goes on.
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

    /// Whether a job has not ended. Joining its thread would wait for it, for ever if it reads a file system
    /// that does not answer: a process that ends then uses _Exit().
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
    Helpers idle_;    // at most one: to start a thread costs a request a tenth of its time
    Helpers helpers_; // one a job that has not ended; joined before the rest is destroyed
};

} // namespace Common
