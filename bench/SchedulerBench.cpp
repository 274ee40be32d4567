// Task schedulers side by side with Asio: posting independent work to a thread pool, posting
// serialised work to a strand, and an asynchronous operation turned into a promise.
#include <benchmark/benchmark.h>

#include <asio/bind_executor.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <atomic>
#include <future>
#include <memory>

#include "Countdown.hpp"
#include "kel/Concurrency/AsyncOperation.hpp"
#include "kel/Concurrency/TaskScheduler.hpp"
#include "kel/Promises/Promise.hpp"

namespace {

using kel::bench::Countdown;

// A scheduler of its own, so that the benchmark does not share queues with anything else; its
// work runs on the library's dispatch pool. The Asio pool gets one thread per core.
kel::TaskScheduler& benchScheduler() {
    static auto* scheduler = new kel::TaskScheduler("bench");
    return *scheduler;
}

asio::thread_pool& asioPool() {
    static auto* pool = new asio::thread_pool(std::thread::hardware_concurrency());
    return *pool;
}

constexpr std::int64_t itemsPerBatch = 1000;

void BM_Schedule_TaskScheduler(benchmark::State& state) {
    auto& scheduler = benchScheduler();
    Countdown countdown;
    for (auto _ : state) {
        countdown.reset(itemsPerBatch);
        for (std::int64_t i = 0; i < itemsPerBatch; ++i) {
            scheduler.schedule([&countdown] { countdown.arrive(); });
        }
        countdown.wait();
    }
    state.SetItemsProcessed(state.iterations() * itemsPerBatch);
}
BENCHMARK(BM_Schedule_TaskScheduler)->UseRealTime();

void BM_Schedule_AsioThreadPoolPost(benchmark::State& state) {
    auto& pool = asioPool();
    Countdown countdown;
    for (auto _ : state) {
        countdown.reset(itemsPerBatch);
        for (std::int64_t i = 0; i < itemsPerBatch; ++i) {
            asio::post(pool, [&countdown] { countdown.arrive(); });
        }
        countdown.wait();
    }
    state.SetItemsProcessed(state.iterations() * itemsPerBatch);
}
BENCHMARK(BM_Schedule_AsioThreadPoolPost)->UseRealTime();

void BM_ScheduleLowPriority_TaskScheduler(benchmark::State& state) {
    auto& scheduler = benchScheduler();
    Countdown countdown;
    for (auto _ : state) {
        countdown.reset(itemsPerBatch);
        for (std::int64_t i = 0; i < itemsPerBatch; ++i) {
            scheduler.scheduleLowPriority([&countdown] { countdown.arrive(); });
        }
        countdown.wait();
    }
    state.SetItemsProcessed(state.iterations() * itemsPerBatch);
}
BENCHMARK(BM_ScheduleLowPriority_TaskScheduler)->UseRealTime();

void BM_ScheduleLowPriority_AsioStrandPost(benchmark::State& state) {
    auto strand = asio::make_strand(asioPool());
    Countdown countdown;
    for (auto _ : state) {
        countdown.reset(itemsPerBatch);
        for (std::int64_t i = 0; i < itemsPerBatch; ++i) {
            asio::post(strand, [&countdown] { countdown.arrive(); });
        }
        countdown.wait();
    }
    state.SetItemsProcessed(state.iterations() * itemsPerBatch);
}
BENCHMARK(BM_ScheduleLowPriority_AsioStrandPost)->UseRealTime();

// An operation that answers at once from the thread the queue starts it on.
class AnswerOperation final : public kel::AsyncOperation<int> {
  protected:
    void perform(CompletionHandler completion) override {
        completion(kel::Result<int>::success(42));
    }
};

void BM_PromiseRoundTrip_TaskScheduler(benchmark::State& state) {
    auto& scheduler = benchScheduler();
    for (auto _ : state) {
        std::atomic<bool> done{false};
        scheduler.promise(std::make_shared<AnswerOperation>())
            .then(kel::zalgo(), [&done](int value) {
                benchmark::DoNotOptimize(value);
                done.store(true, std::memory_order_release);
                done.notify_one();
            });
        done.wait(false, std::memory_order_acquire);
    }
}
BENCHMARK(BM_PromiseRoundTrip_TaskScheduler)->UseRealTime();

// The floor under the round trip: one block through the same operation queue, signalling back.
void BM_PromiseRoundTrip_ScheduleBlockOnly(benchmark::State& state) {
    auto& scheduler = benchScheduler();
    for (auto _ : state) {
        std::atomic<bool> done{false};
        scheduler.schedule([&done] {
            done.store(true, std::memory_order_release);
            done.notify_one();
        });
        done.wait(false, std::memory_order_acquire);
    }
}
BENCHMARK(BM_PromiseRoundTrip_ScheduleBlockOnly)->UseRealTime();

// The nearest Asio form: post the job to the pool and hand the answer back through a
// std::promise that the caller waits on.
void BM_PromiseRoundTrip_AsioPostStdFuture(benchmark::State& state) {
    auto& pool = asioPool();
    for (auto _ : state) {
        std::promise<int> answer;
        auto future = answer.get_future();
        asio::post(pool, [&answer] { answer.set_value(42); });
        benchmark::DoNotOptimize(future.get());
    }
}
BENCHMARK(BM_PromiseRoundTrip_AsioPostStdFuture)->UseRealTime();

}  // namespace
