// Collections side by side with what a user would write by hand:
//   - Cache against std::unordered_map guarded by std::mutex or std::shared_mutex, holding the
//     same entries (value + time stamp): single-key get, get with a maximum age, set, and a
//     90% read / 10% write mix on 1, 2 and 4 threads;
//   - UniqueCollection against std::vector + std::unordered_map<identifier, position>:
//     appending 100,000 elements and looking them up by identifier;
//   - applyChanges on a vector and on a UniqueCollection with growing numbers of mixed changes.
#include <kel/Collections/Cache.hpp>
#include <kel/Collections/CollectionChange.hpp>
#include <kel/Collections/UniqueCollection.hpp>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <random>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using Clock = std::chrono::system_clock;

constexpr int cacheKeyCount = 1024;

const std::vector<std::string>& cacheKeys() {
    static const std::vector<std::string> keys = [] {
        std::vector<std::string> made;
        for (int index = 0; index < cacheKeyCount; ++index) {
            made.push_back("user/" + std::to_string(index) + "/profile");
        }
        return made;
    }();
    return keys;
}

// A value past the small-string buffer, so that copying it allocates as real values do.
std::string cacheValue(int index) {
    return "profile #" + std::to_string(index) + " of a user, long enough to live on the heap";
}

// The hand-written peers: the same entries (value and time stamp) under one lock.
template <class Mutex, bool sharedReads>
class LockedMap {
  public:
    std::optional<std::string> get(const std::string& key) const {
        ReadLock guard(mutex_);
        auto entry = entries_.find(key);
        return entry != entries_.end() ? std::optional(entry->second.value) : std::nullopt;
    }

    std::optional<std::string> get(const std::string& key,
                                   std::chrono::duration<double> maxAge) const {
        ReadLock guard(mutex_);
        auto entry = entries_.find(key);
        if (entry == entries_.end() ||
            std::chrono::duration<double>(Clock::now() - entry->second.enteredAt) > maxAge) {
            return std::nullopt;
        }
        return entry->second.value;
    }

    void set(const std::string& key, std::string value) {
        std::lock_guard guard(mutex_);
        entries_.insert_or_assign(key, Entry{std::move(value), Clock::now()});
    }

  private:
    struct Entry {
        std::string value;
        Clock::time_point enteredAt;
    };
    using ReadLock =
        std::conditional_t<sharedReads, std::shared_lock<Mutex>, std::lock_guard<Mutex>>;

    mutable Mutex mutex_;
    std::unordered_map<std::string, Entry> entries_;  // guarded by mutex_
};

using MutexMap = LockedMap<std::mutex, false>;
using SharedMutexMap = LockedMap<std::shared_mutex, true>;

struct KelCache {
    std::shared_ptr<kel::Cache<std::string, std::string>> cache =
        kel::Cache<std::string, std::string>::make();
    std::optional<std::string> get(const std::string& key) const { return cache->get(key); }
    std::optional<std::string> get(const std::string& key,
                                   std::chrono::duration<double> maxAge) const {
        return cache->get(key, maxAge);
    }
    void set(const std::string& key, std::string value) { cache->set(key, std::move(value)); }
};

// One filled store per type, shared by every thread of a run.
template <class Store>
Store& filledStore() {
    static Store store;
    static std::once_flag filled;
    std::call_once(filled, [] {
        for (int index = 0; index < cacheKeyCount; ++index) {
            store.set(cacheKeys()[static_cast<std::size_t>(index)], cacheValue(index));
        }
    });
    return store;
}

template <class Store>
void BM_CacheGet(benchmark::State& state) {
    const Store& store = filledStore<Store>();
    const auto& keys = cacheKeys();
    std::size_t index = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(store.get(keys[index++ % cacheKeyCount]));
    }
    state.SetItemsProcessed(state.iterations());
}

template <class Store>
void BM_CacheGetMaxAge(benchmark::State& state) {
    const Store& store = filledStore<Store>();
    const auto& keys = cacheKeys();
    std::size_t index = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(store.get(keys[index++ % cacheKeyCount], std::chrono::hours(1)));
    }
    state.SetItemsProcessed(state.iterations());
}

template <class Store>
void BM_CacheSet(benchmark::State& state) {
    Store& store = filledStore<Store>();
    const auto& keys = cacheKeys();
    const std::string value = cacheValue(7);
    std::size_t index = 0;
    for (auto _ : state) {
        store.set(keys[index++ % cacheKeyCount], value);
    }
    state.SetItemsProcessed(state.iterations());
}

// Nine reads (one of them with a maximum age) for every write, on every thread.
template <class Store>
void BM_CacheMixed90PercentReads(benchmark::State& state) {
    Store& store = filledStore<Store>();
    const auto& keys = cacheKeys();
    const std::string value = cacheValue(3);
    std::size_t index = static_cast<std::size_t>(state.thread_index()) * 97;
    for (auto _ : state) {
        const std::string& key = keys[index++ % cacheKeyCount];
        switch (index % 10) {
            case 0:
                store.set(key, value);
                break;
            case 1:
                benchmark::DoNotOptimize(store.get(key, std::chrono::hours(1)));
                break;
            default:
                benchmark::DoNotOptimize(store.get(key));
        }
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_CacheGet<KelCache>)->Name("Cache/get/kel::Cache");
BENCHMARK(BM_CacheGet<MutexMap>)->Name("Cache/get/unordered_map+mutex");
BENCHMARK(BM_CacheGet<SharedMutexMap>)->Name("Cache/get/unordered_map+shared_mutex");
BENCHMARK(BM_CacheGetMaxAge<KelCache>)->Name("Cache/getMaxAge/kel::Cache");
BENCHMARK(BM_CacheGetMaxAge<MutexMap>)->Name("Cache/getMaxAge/unordered_map+mutex");
BENCHMARK(BM_CacheGetMaxAge<SharedMutexMap>)->Name("Cache/getMaxAge/unordered_map+shared_mutex");
BENCHMARK(BM_CacheSet<KelCache>)->Name("Cache/set/kel::Cache");
BENCHMARK(BM_CacheSet<MutexMap>)->Name("Cache/set/unordered_map+mutex");
BENCHMARK(BM_CacheSet<SharedMutexMap>)->Name("Cache/set/unordered_map+shared_mutex");
BENCHMARK(BM_CacheMixed90PercentReads<KelCache>)
    ->Name("Cache/mixed90read/kel::Cache")
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();
BENCHMARK(BM_CacheMixed90PercentReads<MutexMap>)
    ->Name("Cache/mixed90read/unordered_map+mutex")
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();
BENCHMARK(BM_CacheMixed90PercentReads<SharedMutexMap>)
    ->Name("Cache/mixed90read/unordered_map+shared_mutex")
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();

// Small integer values are stored inline in the cache: a read copies them under the lock.
void BM_CacheGetInt(benchmark::State& state) {
    auto cache = kel::Cache<int, long>::make();
    for (int key = 0; key < cacheKeyCount; ++key) {
        cache->set(key, key);
    }
    int key = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(cache->get(key++ % cacheKeyCount));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CacheGetInt)->Name("Cache/getInt/kel::Cache");

void BM_MutexMapGetInt(benchmark::State& state) {
    std::mutex mutex;
    std::unordered_map<int, std::pair<long, Clock::time_point>> map;
    for (int key = 0; key < cacheKeyCount; ++key) {
        map.emplace(key, std::pair(long{key}, Clock::now()));
    }
    int key = 0;
    for (auto _ : state) {
        std::optional<long> value;
        {
            std::lock_guard guard(mutex);
            auto entry = map.find(key++ % cacheKeyCount);
            if (entry != map.end()) {
                value = entry->second.first;
            }
        }
        benchmark::DoNotOptimize(value);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MutexMapGetInt)->Name("Cache/getInt/unordered_map+mutex");

// UniqueCollection against the vector + index a user would keep by hand.
struct Item {
    std::string id;
    int payload;
    const std::string& identifier() const { return id; }
    friend bool operator==(const Item&, const Item&) = default;
};

constexpr std::size_t itemCount = 100'000;

const std::vector<Item>& items() {
    static const std::vector<Item> made = [] {
        std::vector<Item> list;
        list.reserve(itemCount);
        for (std::size_t index = 0; index < itemCount; ++index) {
            list.push_back(Item{"item-" + std::to_string(index * 7919 % 1'000'003), 0});
        }
        return list;
    }();
    return made;
}

struct HandKeptCollection {
    std::vector<Item> elements;
    std::unordered_map<std::string, std::size_t> positions;

    void append(const Item& item) {
        if (!positions.try_emplace(item.id, elements.size()).second) {
            std::abort();
        }
        elements.push_back(item);
    }
    const Item* find(const std::string& id) const {
        auto entry = positions.find(id);
        return entry != positions.end() ? &elements[entry->second] : nullptr;
    }
};

void BM_UniqueCollectionAppend(benchmark::State& state) {
    for (auto _ : state) {
        kel::UniqueCollection<Item> collection;
        for (const Item& item : items()) {
            collection.append(item);
        }
        benchmark::DoNotOptimize(collection.size());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(itemCount));
}
BENCHMARK(BM_UniqueCollectionAppend)
    ->Name("UniqueCollection/append100k/kel::UniqueCollection")
    ->Unit(benchmark::kMillisecond);

void BM_HandKeptAppend(benchmark::State& state) {
    for (auto _ : state) {
        HandKeptCollection collection;
        for (const Item& item : items()) {
            collection.append(item);
        }
        benchmark::DoNotOptimize(collection.elements.size());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(itemCount));
}
BENCHMARK(BM_HandKeptAppend)
    ->Name("UniqueCollection/append100k/vector+unordered_map")
    ->Unit(benchmark::kMillisecond);

void BM_UniqueCollectionLookup(benchmark::State& state) {
    const kel::UniqueCollection<Item> collection(items());
    std::size_t index = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(collection.find(items()[index++ % itemCount].id));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_UniqueCollectionLookup)->Name("UniqueCollection/lookup/kel::UniqueCollection");

void BM_HandKeptLookup(benchmark::State& state) {
    HandKeptCollection collection;
    for (const Item& item : items()) {
        collection.append(item);
    }
    std::size_t index = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(collection.find(items()[index++ % itemCount].id));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_HandKeptLookup)->Name("UniqueCollection/lookup/vector+unordered_map");

// A random list of changes (a third each of additions, removals and reorderings) over a
// collection of as many elements, with reordering targets chosen so that the corrected target
// always lies inside the collection.
struct ChangePlan {
    std::vector<std::string> start;
    std::vector<kel::CollectionChange<std::string>> changes;
};

ChangePlan makePlan(std::size_t count) {
    using Change = kel::CollectionChange<std::string>;
    std::mt19937 random(static_cast<unsigned>(count));
    ChangePlan plan;
    for (std::size_t index = 0; index < count; ++index) {
        plan.start.push_back("row-" + std::to_string(index));
    }
    std::vector<std::string> state = plan.start;
    // The corrections earlier changes apply to later targets: a removal at r, or a move
    // from f to t.
    struct Correction {
        bool removal;
        std::ptrdiff_t from;
        std::ptrdiff_t to;
    };
    std::vector<Correction> corrections;
    const auto corrected = [&](std::ptrdiff_t target) {
        for (const Correction& correction : corrections) {
            if (correction.removal) {
                target -= target > correction.from ? 1 : 0;
            } else {
                target += (correction.to < target ? 1 : 0) - (correction.from < target ? 1 : 0);
            }
        }
        return target;
    };
    const auto pick = [&](std::size_t bound) {
        return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random);
    };
    std::size_t added = 0;
    for (std::size_t index = 0; index < count; ++index) {
        const std::size_t kind = state.size() < 2 ? 0 : pick(3);
        if (kind == 0) {
            std::string id = "new-" + std::to_string(added++);
            plan.changes.push_back(Change::adding(id));
            state.push_back(std::move(id));
        } else if (kind == 1) {
            const std::size_t removed = pick(state.size());
            plan.changes.push_back(Change::removing(state[removed]));
            state.erase(state.begin() + static_cast<std::ptrdiff_t>(removed));
            corrections.push_back({true, static_cast<std::ptrdiff_t>(removed), 0});
        } else {
            const std::size_t from = pick(state.size());
            const auto wanted = static_cast<std::ptrdiff_t>(pick(state.size()));
            // Corrections are monotonic: find the largest raw target whose corrected value
            // does not pass the wanted one.
            auto low = -static_cast<std::ptrdiff_t>(2 * count);
            auto high = static_cast<std::ptrdiff_t>(3 * count);
            while (low < high) {
                const auto middle = low + (high - low + 1) / 2;
                if (corrected(middle) <= wanted) {
                    low = middle;
                } else {
                    high = middle - 1;
                }
            }
            const std::ptrdiff_t to = corrected(low);
            if (to < 0 || to >= static_cast<std::ptrdiff_t>(state.size())) {
                continue;
            }
            plan.changes.push_back(Change::reordering(state[from], low));
            std::string moved = std::move(state[from]);
            state.erase(state.begin() + static_cast<std::ptrdiff_t>(from));
            state.insert(state.begin() + to, std::move(moved));
            corrections.push_back({false, static_cast<std::ptrdiff_t>(from), to});
        }
    }
    return plan;
}

const ChangePlan& planFor(std::size_t count) {
    static std::unordered_map<std::size_t, ChangePlan> plans;
    auto [entry, inserted] = plans.try_emplace(count);
    if (inserted) {
        entry->second = makePlan(count);
    }
    return entry->second;
}

template <class Collection>
void BM_ApplyChanges(benchmark::State& state) {
    const ChangePlan& plan = planFor(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        Collection collection(plan.start);
        state.ResumeTiming();
        kel::applyChanges(collection, plan.changes);
        benchmark::DoNotOptimize(collection.size());
    }
    state.SetComplexityN(state.range(0));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ApplyChanges<std::vector<std::string>>)
    ->Name("applyChanges/vector")
    ->RangeMultiplier(2)
    ->Range(1250, 10000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity();
BENCHMARK(BM_ApplyChanges<kel::UniqueCollection<std::string>>)
    ->Name("applyChanges/UniqueCollection")
    ->RangeMultiplier(2)
    ->Range(1250, 10000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity();

}  // namespace
