// Life-cycle dispatch side by side with the loop a user would write by hand over a
// std::vector<std::weak_ptr<...>>:
//   - ApplicationStateManager::didBecomeActive to 1,000 live monitors;
//   - RemoteNotificationManager::handleRemoteNotification to 100 handlers that answer with a
//     settled promise, joined with `when` and reduced to one result; the hand-written peer does
//     the same join and reduction, so the difference is the manager's own work.
// "per_registrant" is the time of one dispatch divided by the number of registrants, in seconds
// with an SI prefix (11n is 11 ns); it uses CPU time for the application-state pair and wall
// time for the notification pair, whose join finishes on a pool thread.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "kel/Lifecycle/ApplicationStateManager.hpp"
#include "kel/Lifecycle/RemoteNotificationManager.hpp"
#include "kel/Promises/When.hpp"

namespace {

using kel::Promise;
using kel::RemoteNotificationFetchResult;

class CountingMonitor final : public kel::ApplicationStateMonitor {
  public:
    void applicationDidBecomeActive() override { ++calls; }
    long calls = 0;
};

class AnsweringHandler final : public kel::RemoteNotificationHandler {
  public:
    Promise<RemoteNotificationFetchResult> handleRemoteNotification(
        const nlohmann::json&) override {
        return Promise<RemoteNotificationFetchResult>::fulfilled(
            RemoteNotificationFetchResult::newData);
    }
};

void setPerRegistrant(benchmark::State& state, int registrants) {
    state.counters["per_registrant"] = benchmark::Counter(
        registrants, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

template <class T>
void waitFor(const Promise<T>& promise) {
    std::atomic<bool> done{false};
    promise.always(kel::zalgo(), [&done] {
        done.store(true, std::memory_order_release);
        done.notify_one();
    });
    done.wait(false, std::memory_order_acquire);
}

// --- application state: 1,000 monitors ---

constexpr int monitorCount = 1000;

void BM_ApplicationStateDispatch_Kel(benchmark::State& state) {
    std::vector<std::shared_ptr<CountingMonitor>> monitors;
    kel::ApplicationStateManager manager;
    for (int i = 0; i < monitorCount; ++i) {
        monitors.push_back(std::make_shared<CountingMonitor>());
        manager.add(monitors.back());
    }
    for (auto _ : state) {
        manager.didBecomeActive();
    }
    benchmark::DoNotOptimize(monitors.front()->calls);
    setPerRegistrant(state, monitorCount);
}
BENCHMARK(BM_ApplicationStateDispatch_Kel);

void BM_ApplicationStateDispatch_WeakPtrLoop(benchmark::State& state) {
    std::vector<std::shared_ptr<CountingMonitor>> monitors;
    std::vector<std::weak_ptr<kel::ApplicationStateMonitor>> registered;
    for (int i = 0; i < monitorCount; ++i) {
        monitors.push_back(std::make_shared<CountingMonitor>());
        registered.emplace_back(monitors.back());
    }
    for (auto _ : state) {
        for (const auto& weak : registered) {
            if (auto monitor = weak.lock()) {
                monitor->applicationDidBecomeActive();
            }
        }
        benchmark::ClobberMemory();
    }
    benchmark::DoNotOptimize(monitors.front()->calls);
    setPerRegistrant(state, monitorCount);
}
BENCHMARK(BM_ApplicationStateDispatch_WeakPtrLoop);

// --- remote notifications: 100 handlers answering at once ---

constexpr int handlerCount = 100;

void BM_RemoteNotificationDispatch_Kel(benchmark::State& state) {
    std::vector<std::shared_ptr<AnsweringHandler>> handlers;
    kel::RemoteNotificationManager manager;
    for (int i = 0; i < handlerCount; ++i) {
        handlers.push_back(std::make_shared<AnsweringHandler>());
        manager.add(handlers.back(), kel::RemoteNotificationPattern::any);
    }
    const nlohmann::json payload = {{"aps", {{"category", "news"}}}};
    for (auto _ : state) {
        waitFor(manager.handleRemoteNotification(payload));
    }
    setPerRegistrant(state, handlerCount);
}
BENCHMARK(BM_RemoteNotificationDispatch_Kel)->UseRealTime();

void BM_RemoteNotificationDispatch_WeakPtrLoop(benchmark::State& state) {
    using Result = RemoteNotificationFetchResult;
    std::vector<std::shared_ptr<AnsweringHandler>> handlers;
    std::vector<std::weak_ptr<kel::RemoteNotificationHandler>> registered;
    for (int i = 0; i < handlerCount; ++i) {
        handlers.push_back(std::make_shared<AnsweringHandler>());
        registered.emplace_back(handlers.back());
    }
    const nlohmann::json payload = {{"aps", {{"category", "news"}}}};
    for (auto _ : state) {
        std::vector<Promise<Result>> answers;
        for (const auto& weak : registered) {
            if (auto handler = weak.lock()) {
                answers.push_back(handler->handleRemoteNotification(payload));
            }
        }
        waitFor(kel::when(kel::zalgo(), answers).then(kel::zalgo(), [](const auto& results) {
            return std::ranges::find(results, Result::newData) != results.end() ? Result::newData
                                                                                : Result::noData;
        }));
    }
    setPerRegistrant(state, handlerCount);
}
BENCHMARK(BM_RemoteNotificationDispatch_WeakPtrLoop)->UseRealTime();

}  // namespace
