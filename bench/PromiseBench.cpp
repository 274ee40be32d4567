// Promises side by side with boost::future (continuations) and std::promise/std::future.
#define BOOST_THREAD_VERSION 5
#define BOOST_THREAD_PROVIDES_EXECUTORS
#include <benchmark/benchmark.h>

#include <atomic>
#include <boost/thread/executors/basic_thread_pool.hpp>
#include <boost/thread/future.hpp>
#include <future>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

#include "AllocationCounter.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Promises/Promise.hpp"
#include "kel/Promises/PromiseDeduper.hpp"
#include "kel/Promises/When.hpp"

namespace {

using kel::Promise;
using kel::zalgo;

// Blocks until the promise settles, without a run loop.
template <class T>
void waitFor(const Promise<T>& promise) {
    std::atomic<bool> done{false};
    promise.always(zalgo(), [&done] {
        done.store(true, std::memory_order_release);
        done.notify_one();
    });
    done.wait(false, std::memory_order_acquire);
}

// --- create + fulfil + one continuation run at once ---

void BM_CreateFulfilThen_Kel_Settled(benchmark::State& state) {
    for (auto _ : state) {
        Promise<int> promise([](auto fulfill, auto) { fulfill(1); });
        auto next = promise.then(zalgo(), [](int v) { return v + 1; });
        benchmark::DoNotOptimize(next.resolution()->value());
    }
}
BENCHMARK(BM_CreateFulfilThen_Kel_Settled);

void BM_CreateFulfilThen_Kel_Pending(benchmark::State& state) {
    for (auto _ : state) {
        std::optional<Promise<int>::Fulfill> fulfill;
        Promise<int> promise([&](auto f, auto) { fulfill.emplace(std::move(f)); });
        auto next = promise.then(zalgo(), [](int v) { return v + 1; });
        (*fulfill)(1);
        benchmark::DoNotOptimize(next.resolution()->value());
    }
}
BENCHMARK(BM_CreateFulfilThen_Kel_Pending);

void BM_CreateFulfilThen_BoostFuture_Pending(benchmark::State& state) {
    for (auto _ : state) {
        boost::promise<int> promise;
        auto next = promise.get_future().then(boost::launch::sync,
                                              [](boost::future<int> f) { return f.get() + 1; });
        promise.set_value(1);
        benchmark::DoNotOptimize(next.get());
    }
}
BENCHMARK(BM_CreateFulfilThen_BoostFuture_Pending);

// The same order as BM_CreateFulfilThen_Kel_Settled: fulfilled first, then the continuation.
void BM_CreateFulfilThen_BoostFuture_Settled(benchmark::State& state) {
    for (auto _ : state) {
        boost::promise<int> promise;
        promise.set_value(1);
        auto next = promise.get_future().then(boost::launch::sync,
                                              [](boost::future<int> f) { return f.get() + 1; });
        benchmark::DoNotOptimize(next.get());
    }
}
BENCHMARK(BM_CreateFulfilThen_BoostFuture_Settled);

void BM_CreateFulfilGet_StdFuture(benchmark::State& state) {
    for (auto _ : state) {
        std::promise<int> promise;
        auto future = promise.get_future();
        promise.set_value(1);
        benchmark::DoNotOptimize(future.get() + 1);
    }
}
BENCHMARK(BM_CreateFulfilGet_StdFuture);

// --- a chain of ten continuations ---

void BM_Chain10_Kel_Zalgo(benchmark::State& state) {
    for (auto _ : state) {
        auto p = Promise<int>::fulfilled(0);
        for (int i = 0; i < 10; ++i) {
            p = p.then(zalgo(), [](int v) { return v + 1; });
        }
        benchmark::DoNotOptimize(p.resolution()->value());
    }
}
BENCHMARK(BM_Chain10_Kel_Zalgo);

void BM_Chain10_BoostFuture_Sync(benchmark::State& state) {
    for (auto _ : state) {
        auto f = boost::make_ready_future(0);
        for (int i = 0; i < 10; ++i) {
            f = f.then(boost::launch::sync, [](boost::future<int> g) { return g.get() + 1; });
        }
        benchmark::DoNotOptimize(f.get());
    }
}
BENCHMARK(BM_Chain10_BoostFuture_Sync);

void BM_Chain10_Kel_SerialQueue(benchmark::State& state) {
    kel::DispatchQueue queue("bench.chain");
    for (auto _ : state) {
        auto p = Promise<int>::fulfilled(0);
        for (int i = 0; i < 10; ++i) {
            p = p.then(queue, [](int v) { return v + 1; });
        }
        waitFor(p);
    }
}
BENCHMARK(BM_Chain10_Kel_SerialQueue)->UseRealTime();

void BM_Chain10_BoostFuture_SingleThreadPool(benchmark::State& state) {
    boost::executors::basic_thread_pool pool(1);
    for (auto _ : state) {
        auto f = boost::make_ready_future(0);
        for (int i = 0; i < 10; ++i) {
            f = f.then(pool, [](boost::future<int> g) { return g.get() + 1; });
        }
        benchmark::DoNotOptimize(f.get());
    }
}
BENCHMARK(BM_Chain10_BoostFuture_SingleThreadPool)->UseRealTime();

// --- joins over 1,000 fulfilled inputs (creating the inputs included) ---

constexpr int kJoinInputs = 1000;

void BM_Join1000_Kel_All(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<Promise<int>> inputs;
        inputs.reserve(kJoinInputs);
        for (int i = 0; i < kJoinInputs; ++i) {
            inputs.push_back(Promise<int>::fulfilled(i));
        }
        auto all = Promise<int>::all(std::move(inputs));
        benchmark::DoNotOptimize(all.resolution()->value().size());
    }
}
BENCHMARK(BM_Join1000_Kel_All);

void BM_Join1000_Kel_When(benchmark::State& state) {
    kel::DispatchQueue queue("bench.when");
    for (auto _ : state) {
        std::vector<Promise<int>> inputs;
        inputs.reserve(kJoinInputs);
        for (int i = 0; i < kJoinInputs; ++i) {
            inputs.push_back(Promise<int>::fulfilled(i));
        }
        auto joined = kel::when(queue, inputs);
        waitFor(joined);
    }
}
BENCHMARK(BM_Join1000_Kel_When)->UseRealTime();

void BM_Join1000_BoostFuture_WhenAll(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<boost::future<int>> inputs;
        inputs.reserve(kJoinInputs);
        for (int i = 0; i < kJoinInputs; ++i) {
            inputs.push_back(boost::make_ready_future(i));
        }
        auto all = boost::when_all(inputs.begin(), inputs.end());
        benchmark::DoNotOptimize(all.get().size());
    }
}
BENCHMARK(BM_Join1000_BoostFuture_WhenAll);

// --- de-duplication, hit path ---

kel::PromiseDeduper<int, int>& sharedDeduper() {
    static kel::PromiseDeduper<int, int> deduper;
    static const Promise<int> inFlight =
        deduper.promise(1, [] { return Promise<int>([](auto, auto) {}); });
    return deduper;
}

void BM_DedupeHit_Kel_PromiseDeduper(benchmark::State& state) {
    auto& deduper = sharedDeduper();
    for (auto _ : state) {
        auto promise = deduper.promise(1, [] { return Promise<int>::fulfilled(0); });
        benchmark::DoNotOptimize(&promise);
    }
}
BENCHMARK(BM_DedupeHit_Kel_PromiseDeduper)->Threads(1)->Threads(2)->UseRealTime();

struct StdDeduper {
    std::mutex mutex;
    std::unordered_map<int, std::shared_future<int>> futures;  // guarded by mutex
};

StdDeduper& sharedStdDeduper() {
    static StdDeduper* deduper = [] {
        auto* d = new StdDeduper;
        static std::promise<int> never;
        d->futures.emplace(1, never.get_future().share());
        return d;
    }();
    return *deduper;
}

void BM_DedupeHit_StdMutexMapOfSharedFutures(benchmark::State& state) {
    auto& deduper = sharedStdDeduper();
    for (auto _ : state) {
        std::shared_future<int> future;
        {
            std::lock_guard lock(deduper.mutex);
            future = deduper.futures.find(1)->second;
        }
        benchmark::DoNotOptimize(&future);
    }
}
BENCHMARK(BM_DedupeHit_StdMutexMapOfSharedFutures)->Threads(1)->Threads(2)->UseRealTime();

// --- memory of a pending promise with one continuation ---

void reportAllocations(benchmark::State& state, std::uint64_t allocations, std::uint64_t bytes) {
    state.counters["allocs"] =
        benchmark::Counter(static_cast<double>(allocations), benchmark::Counter::kAvgIterations);
    state.counters["bytes"] =
        benchmark::Counter(static_cast<double>(bytes), benchmark::Counter::kAvgIterations);
}

void BM_PendingWithOneHandler_Kel(benchmark::State& state) {
    std::uint64_t allocations = 0;
    std::uint64_t bytes = 0;
    for (auto _ : state) {
        // On a thread of its own: promise storage is recycled per thread, and a thread that has
        // never freed a promise takes every block from operator new, as a cold process does.
        std::thread([&] {
            kel::bench::AllocationScope scope;
            Promise<int> promise([](auto, auto) {});
            auto next = promise.then(zalgo(), [](int v) { return v + 1; });
            allocations += scope.allocations();
            bytes += scope.bytes();
            benchmark::DoNotOptimize(&next);
        }).join();
    }
    reportAllocations(state, allocations, bytes);
}
BENCHMARK(BM_PendingWithOneHandler_Kel)->Iterations(1000);

void BM_PendingWithOneHandler_BoostFuture(benchmark::State& state) {
    std::uint64_t allocations = 0;
    std::uint64_t bytes = 0;
    for (auto _ : state) {
        kel::bench::AllocationScope scope;
        boost::promise<int> promise;
        auto next = promise.get_future().then(boost::launch::sync,
                                              [](boost::future<int> f) { return f.get() + 1; });
        allocations += scope.allocations();
        bytes += scope.bytes();
        benchmark::DoNotOptimize(&next);
        promise.set_value(0);
    }
    reportAllocations(state, allocations, bytes);
}
BENCHMARK(BM_PendingWithOneHandler_BoostFuture);

void BM_PendingNoHandler_StdFuture(benchmark::State& state) {
    std::uint64_t allocations = 0;
    std::uint64_t bytes = 0;
    for (auto _ : state) {
        kel::bench::AllocationScope scope;
        std::promise<int> promise;
        auto future = promise.get_future();
        allocations += scope.allocations();
        bytes += scope.bytes();
        benchmark::DoNotOptimize(&future);
        promise.set_value(0);
    }
    reportAllocations(state, allocations, bytes);
}
BENCHMARK(BM_PendingNoHandler_StdFuture);

}  // namespace
