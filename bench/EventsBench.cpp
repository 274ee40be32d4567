// Lazy values, observables and the event manager side by side with what a user would pick
// instead:
//   - Lazy<T>::value once loaded, from 1 and 2 threads, against a value guarded by
//     std::call_once and a function-local static;
//   - Observable::next with 1 and 10 observers against a boost::signals2 signal with as many
//     slots (both on the main thread, both passing an int);
//   - EventManager::fire over 1,000 triggers (all satisfied and running, or all still
//     waiting), quoted as time per trigger.
#include "kel/Collections/Observable.hpp"
#include "kel/Concurrency/Lazy.hpp"
#include "kel/Lifecycle/EventManager.hpp"

#include <benchmark/benchmark.h>
#include <boost/signals2/signal.hpp>

#include <cstdint>
#include <mutex>
#include <string>

namespace {

// --- Lazy values, read after loading -----------------------------------------------------

kel::Lazy<std::int64_t>& loadedLazy() {
    static kel::Lazy<std::int64_t> lazy({}, [] { return std::int64_t{42}; });
    return lazy;
}

struct CallOnceValue {
    std::once_flag flag;
    std::int64_t value = 0;
    const std::int64_t& get() {
        std::call_once(flag, [this] { value = 42; });
        return value;
    }
};

CallOnceValue& callOnceValue() {
    static CallOnceValue value;
    return value;
}

// Kept out of line so that the static's guard check happens on every call, as it does for a
// caller in another translation unit.
[[gnu::noinline]] const std::int64_t& functionLocalStatic() {
    static const std::int64_t value = 42;
    return value;
}

void BM_LazyValue(benchmark::State& state) {
    kel::Lazy<std::int64_t>& lazy = loadedLazy();
    lazy.value();
    for (auto _ : state) {
        benchmark::DoNotOptimize(lazy.value());
    }
}
BENCHMARK(BM_LazyValue)->Threads(1)->Threads(2)->UseRealTime();

void BM_CallOnceValue(benchmark::State& state) {
    CallOnceValue& once = callOnceValue();
    once.get();
    for (auto _ : state) {
        benchmark::DoNotOptimize(once.get());
    }
}
BENCHMARK(BM_CallOnceValue)->Threads(1)->Threads(2)->UseRealTime();

void BM_FunctionLocalStatic(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(functionLocalStatic());
    }
}
BENCHMARK(BM_FunctionLocalStatic)->Threads(1)->Threads(2)->UseRealTime();

// --- Observable::next against boost::signals2 ---------------------------------------------

void BM_ObservableNext(benchmark::State& state) {
    auto observable = kel::Observable<int>::make(0);
    std::int64_t sum = 0;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        observable->onNext([&sum](const int& value) { sum += value; });
    }
    int value = 0;
    for (auto _ : state) {
        observable->next(++value);
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_ObservableNext)->Arg(1)->Arg(10);

void BM_Signals2Emit(benchmark::State& state) {
    boost::signals2::signal<void(int)> signal;
    std::int64_t sum = 0;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        signal.connect([&sum](int value) { sum += value; });
    }
    int value = 0;
    for (auto _ : state) {
        signal(++value);
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_Signals2Emit)->Arg(1)->Arg(10);

// --- EventManager::fire over 1,000 triggers -----------------------------------------------

// Arg 1: every trigger is satisfied and runs its block on each fire (kept triggers stay
// satisfied); arg 0: every trigger waits for an event that never fires.
void BM_EventManagerFire(benchmark::State& state) {
    constexpr int triggerCount = 1000;
    constexpr int eventCount = 50;
    const bool satisfied = state.range(0) != 0;
    kel::EventManager<int> manager;
    std::int64_t runs = 0;
    for (int i = 0; i < triggerCount; ++i) {
        manager.trigger({i % eventCount, satisfied ? (i + 1) % eventCount : eventCount}, {},
                        [&runs] { ++runs; });
    }
    for (int event = 0; event < eventCount; ++event) {
        manager.fire(event);
    }
    int event = 0;
    for (auto _ : state) {
        manager.fire(event);
        event = (event + 1) % eventCount;
    }
    benchmark::DoNotOptimize(runs);
    state.counters["per_trigger"] =
        benchmark::Counter(static_cast<double>(triggerCount) * state.iterations(),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_EventManagerFire)->Arg(1)->Arg(0);

}  // namespace
