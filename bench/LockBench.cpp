// Lock costs side by side: kel::UnfairLock and kel::MutexLock against std::mutex and
// boost::mutex, uncontended (one thread locking and unlocking) and contended (2, 4 and 8
// threads incrementing one shared counter under one lock).
#include "kel/Concurrency/Lock.hpp"
#include "kel/Concurrency/MutexLock.hpp"
#include "kel/Concurrency/UnfairLock.hpp"

#include <benchmark/benchmark.h>
#include <boost/thread/mutex.hpp>

#include <cstdint>
#include <mutex>
#include <thread>

namespace {

// glibc's mutexes skip their atomic operations while the process has never had a second
// thread. Processes that need locks have threads (the library's dispatch pool, for one), so
// the benchmarks start one first: otherwise the uncontended mutex figures would be flattered.
const bool processIsMultiThreaded = [] {
    std::thread([] {}).join();
    return true;
}();

template <class L>
struct Shared;

template <>
struct Shared<kel::UnfairLock> {
    static kel::UnfairLock& lock() {
        static kel::UnfairLock lock{kel::UnfairLock::Options::dataSynchronization};
        return lock;
    }
};
template <>
struct Shared<kel::MutexLock> {
    static kel::MutexLock& lock() {
        static kel::MutexLock lock;
        return lock;
    }
};
template <>
struct Shared<std::mutex> {
    static std::mutex& lock() {
        static std::mutex lock;
        return lock;
    }
};
template <>
struct Shared<boost::mutex> {
    static boost::mutex& lock() {
        static boost::mutex lock;
        return lock;
    }
};

// Through the concrete type: calls to the final classes are direct and inlined.
template <class L>
void BM_Uncontended(benchmark::State& state) {
    L& lock = Shared<L>::lock();
    for (auto _ : state) {
        lock.lock();
        benchmark::ClobberMemory();
        lock.unlock();
    }
    state.SetItemsProcessed(state.iterations());
}

// Through kel::Lock&: one virtual call per operation. The pointer is hidden from the optimiser
// so it cannot see the concrete type.
template <class L>
void BM_UncontendedViaLock(benchmark::State& state) {
    kel::Lock* lock = &Shared<L>::lock();
    benchmark::DoNotOptimize(lock);
    for (auto _ : state) {
        lock->lock();
        benchmark::ClobberMemory();
        lock->unlock();
    }
    state.SetItemsProcessed(state.iterations());
}

template <class L>
void BM_UncontendedSyncViaLock(benchmark::State& state) {
    kel::Lock* lock = &Shared<L>::lock();
    benchmark::DoNotOptimize(lock);
    std::uint64_t counter = 0;
    for (auto _ : state) {
        lock->sync([&] { ++counter; });
    }
    benchmark::DoNotOptimize(counter);
    state.SetItemsProcessed(state.iterations());
}

std::uint64_t sharedCounter = 0;  // guarded by the benchmark's lock

// Every thread increments the one counter under the one lock; items/s is the total rate.
template <class L>
void BM_Contended(benchmark::State& state) {
    L& lock = Shared<L>::lock();
    for (auto _ : state) {
        std::lock_guard guard(lock);
        ++sharedCounter;
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_Uncontended<kel::UnfairLock>);
BENCHMARK(BM_Uncontended<kel::MutexLock>);
BENCHMARK(BM_Uncontended<std::mutex>);
BENCHMARK(BM_Uncontended<boost::mutex>);
BENCHMARK(BM_UncontendedViaLock<kel::UnfairLock>);
BENCHMARK(BM_UncontendedViaLock<kel::MutexLock>);
BENCHMARK(BM_UncontendedSyncViaLock<kel::UnfairLock>);
BENCHMARK(BM_UncontendedSyncViaLock<kel::MutexLock>);

BENCHMARK(BM_Contended<kel::UnfairLock>)->ThreadRange(2, 8)->UseRealTime();
BENCHMARK(BM_Contended<kel::MutexLock>)->ThreadRange(2, 8)->UseRealTime();
BENCHMARK(BM_Contended<std::mutex>)->ThreadRange(2, 8)->UseRealTime();
BENCHMARK(BM_Contended<boost::mutex>)->ThreadRange(2, 8)->UseRealTime();

}  // namespace
