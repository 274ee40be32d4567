// The dispatch runtime beside what a user would pick instead: an Asio strand on an
// asio::thread_pool, a std::mutex + std::condition_variable queue with one worker thread, Asio's
// post to a thread pool, and a plain std::mutex around a call.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <latch>
#include <mutex>
#include <thread>
#include <vector>

#include "Countdown.hpp"
#include "kel/Platform/DispatchGroup.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/OperationQueue.hpp"

namespace {

constexpr int itemsPerRun = 10000;

unsigned poolThreads() {
    return std::max(2u, std::thread::hardware_concurrency());
}

using kel::bench::Countdown;

// What a user writes without a dispatch library: one worker thread, a deque of std::function
// under a mutex, and a condition variable.
class MutexQueue {
  public:
    MutexQueue() : worker_([this] { run(); }) {}
    ~MutexQueue() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        worker_.join();
    }
    void post(std::function<void()> work) {
        {
            std::lock_guard lock(mutex_);
            items_.push_back(std::move(work));
        }
        wake_.notify_one();
    }

  private:
    void run() {
        std::unique_lock lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return stopping_ || !items_.empty(); });
            if (items_.empty()) {
                return;
            }
            auto work = std::move(items_.front());
            items_.pop_front();
            lock.unlock();
            work();
            lock.lock();
        }
    }

    std::mutex mutex_;  // guards items_ and stopping_
    std::condition_variable wake_;
    std::deque<std::function<void()>> items_;
    bool stopping_ = false;
    std::thread worker_;
};

// Submits itemsPerRun items, split over `producers` threads, through submit(item).
template <class Submit>
void produce(int producers, Countdown& done, Submit&& submit) {
    if (producers == 1) {
        for (int i = 0; i < itemsPerRun; ++i) {
            submit([&done] { done.arrive(); });
        }
        return;
    }
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&] {
            for (int i = 0; i < itemsPerRun / producers; ++i) {
                submit([&done] { done.arrive(); });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

// MARK: - Serial queues

void BM_Serial_KelDispatchQueue(benchmark::State& state) {
    kel::DispatchQueue queue("bench.serial");
    int producers = static_cast<int>(state.range(0));
    for (auto _ : state) {
        Countdown done(itemsPerRun);
        produce(producers, done, [&](auto work) { queue.async(std::move(work)); });
        done.wait();
    }
    state.SetItemsProcessed(state.iterations() * itemsPerRun);
}

void BM_Serial_AsioStrand(benchmark::State& state) {
    asio::thread_pool pool(poolThreads());
    auto strand = asio::make_strand(pool.get_executor());
    int producers = static_cast<int>(state.range(0));
    for (auto _ : state) {
        Countdown done(itemsPerRun);
        produce(producers, done, [&](auto work) { asio::post(strand, std::move(work)); });
        done.wait();
    }
    state.SetItemsProcessed(state.iterations() * itemsPerRun);
    pool.join();
}

void BM_Serial_MutexConditionQueue(benchmark::State& state) {
    MutexQueue queue;
    int producers = static_cast<int>(state.range(0));
    for (auto _ : state) {
        Countdown done(itemsPerRun);
        produce(producers, done, [&](auto work) { queue.post(std::move(work)); });
        done.wait();
    }
    state.SetItemsProcessed(state.iterations() * itemsPerRun);
}

BENCHMARK(BM_Serial_KelDispatchQueue)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_Serial_AsioStrand)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_Serial_MutexConditionQueue)->Arg(1)->Arg(2)->UseRealTime();

// MARK: - Concurrent queues

void BM_Concurrent_KelGlobalQueue(benchmark::State& state) {
    kel::DispatchQueue queue = kel::DispatchQueue::global();
    for (auto _ : state) {
        Countdown done(itemsPerRun);
        produce(1, done, [&](auto work) { queue.async(std::move(work)); });
        done.wait();
    }
    state.SetItemsProcessed(state.iterations() * itemsPerRun);
}

void BM_Concurrent_AsioThreadPoolPost(benchmark::State& state) {
    asio::thread_pool pool(poolThreads());
    for (auto _ : state) {
        Countdown done(itemsPerRun);
        produce(1, done, [&](auto work) { asio::post(pool, std::move(work)); });
        done.wait();
    }
    state.SetItemsProcessed(state.iterations() * itemsPerRun);
    pool.join();
}

BENCHMARK(BM_Concurrent_KelGlobalQueue)->UseRealTime();
BENCHMARK(BM_Concurrent_AsioThreadPoolPost)->UseRealTime();

// MARK: - Work blocked outside the runtime

// Sixteen items on the global queue that each wait for all the others (one std::latch): the
// time until all have run is the time the pool takes to notice that it is starved and grow.
// One iteration per run, from a pool at its usual size (the extra workers of an earlier run
// have ended by the time the benchmark starts).
void BM_Starvation_SixteenMutuallyWaitingItems(benchmark::State& state) {
    constexpr int items = 16;
    for (auto _ : state) {
        std::latch together(items);
        Countdown done(items);
        for (int i = 0; i < items; ++i) {
            kel::DispatchQueue::global().async([&] {
                together.arrive_and_wait();
                done.arrive();
            });
        }
        done.wait();
    }
}

BENCHMARK(BM_Starvation_SixteenMutuallyWaitingItems)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// MARK: - sync on an idle serial queue

void BM_Sync_KelIdleSerialQueue(benchmark::State& state) {
    kel::DispatchQueue queue("bench.sync");
    long counter = 0;
    for (auto _ : state) {
        queue.sync([&] { ++counter; });
    }
    benchmark::DoNotOptimize(counter);
}

void BM_Sync_StdMutexLockCallUnlock(benchmark::State& state) {
    std::mutex mutex;
    long counter = 0;
    std::function<void()> call = [&] { ++counter; };
    for (auto _ : state) {
        std::lock_guard lock(mutex);
        call();
    }
    benchmark::DoNotOptimize(counter);
}

BENCHMARK(BM_Sync_KelIdleSerialQueue);
BENCHMARK(BM_Sync_StdMutexLockCallUnlock);

// MARK: - asyncAfter lateness

void BM_AsyncAfter_LatenessAtIdle(benchmark::State& state) {
    kel::DispatchQueue queue("bench.timers");
    std::vector<double> lateness;  // microseconds
    for (auto _ : state) {
        auto deadline = kel::DispatchTime::now() + 0.001;
        std::atomic<bool> fired{false};
        double late = 0;
        queue.asyncAfter(deadline, [&] {
            late = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() -
                                                             deadline.timePoint())
                       .count();
            fired.store(true, std::memory_order_release);
            fired.notify_one();
        });
        while (!fired.load(std::memory_order_acquire)) {
            fired.wait(false, std::memory_order_acquire);
        }
        lateness.push_back(late);
    }
    std::sort(lateness.begin(), lateness.end());
    if (!lateness.empty()) {
        state.counters["median_us"] = lateness[lateness.size() / 2];
        state.counters["p99_us"] = lateness[lateness.size() * 99 / 100];
    }
}

BENCHMARK(BM_AsyncAfter_LatenessAtIdle)->Iterations(500)->UseRealTime();

// MARK: - Operation queues

void BM_OperationQueue_AddBlocks(benchmark::State& state) {
    kel::OperationQueue queue;
    queue.setMaxConcurrentOperationCount(static_cast<int>(state.range(0)));
    constexpr int operations = 2000;
    for (auto _ : state) {
        Countdown done(operations);
        for (int i = 0; i < operations; ++i) {
            queue.addOperation([&done] { done.arrive(); });
        }
        done.wait();
        queue.waitUntilAllOperationsAreFinished();
    }
    state.SetItemsProcessed(state.iterations() * operations);
}

BENCHMARK(BM_OperationQueue_AddBlocks)->Arg(1)->Arg(-1)->UseRealTime();

}  // namespace
