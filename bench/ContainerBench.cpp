// The container beside what a user would write by hand:
//   - a graph-scoped object with two dependencies resolved through a ProxyResolver (three
//     objects built) against the same three objects made with std::make_shared, with the heap
//     allocations of one resolution as a counter;
//   - an already-built singleton resolved through a ProxyResolver against a hand-written
//     std::unordered_map<std::type_index, std::function<...>> service locator;
//   - registering N definitions and resolving the first one (N = 1,000 and 10,000), which
//     includes indexing them.
// Each resolver case runs without a bridged side and with the in-memory one.
#include <kel/Container/Container.hpp>
#include <kel/Container/InMemoryZorbFoundation.hpp>
#include <kel/Container/ProxyContainer.hpp>
#include <kel/Container/ProxyResolver.hpp>

#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <string>
#include <typeindex>
#include <unordered_map>
#include <vector>

#include "AllocationCounter.hpp"

namespace {

struct Engine : kel::Object {};
struct Wheels : kel::Object {};
struct Car : kel::Object {
    Car(std::shared_ptr<Engine> engine, std::shared_ptr<Wheels> wheels)
        : engine(std::move(engine)), wheels(std::move(wheels)) {}
    std::shared_ptr<Engine> engine;
    std::shared_ptr<Wheels> wheels;
};
struct Settings : kel::Object {
    int value = 1;
};

struct Wiring {
    explicit Wiring(bool bridged)
        : registry(bridged ? kel::ZFInMemoryRegistry::make() : nullptr),
          container(kel::Container::make()),
          privateContainer(container->privateContainer()),
          resolver(registry, container, privateContainer) {
        auto registerInto = [&](auto&& registration) {
            registration.template register_<std::shared_ptr<Engine>>(
                [](const kel::ResolverType&) { return std::make_shared<Engine>(); });
            registration.template register_<std::shared_ptr<Wheels>>(
                [](const kel::ResolverType&) { return std::make_shared<Wheels>(); });
            registration.template register_<std::shared_ptr<Car>>([](const kel::ResolverType& r) {
                return std::make_shared<Car>(*r.resolve<std::shared_ptr<Engine>>(),
                                             *r.resolve<std::shared_ptr<Wheels>>());
            });
            registration
                .template register_<std::shared_ptr<Settings>>(
                    [](const kel::ResolverType&) { return std::make_shared<Settings>(); })
                .inScope(kel::Scope::singleton);
        };
        registerInto(kel::RegistrationContainer(container, privateContainer, nullptr));
    }

    std::shared_ptr<kel::ZFInMemoryRegistry> registry;
    std::shared_ptr<kel::Container> container;
    std::shared_ptr<kel::Container> privateContainer;
    kel::ProxyResolver resolver;
};

void BM_Container_GraphOfThree_ProxyResolver(benchmark::State& state) {
    Wiring wiring(state.range(0) != 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(wiring.resolver.resolve<std::shared_ptr<Car>>());
    }
    kel::bench::AllocationScope allocations;
    benchmark::DoNotOptimize(wiring.resolver.resolve<std::shared_ptr<Car>>());
    state.counters["allocs/resolution"] = static_cast<double>(allocations.allocations());
}
BENCHMARK(BM_Container_GraphOfThree_ProxyResolver)->ArgName("bridged")->Arg(0)->Arg(1);

void BM_Container_GraphOfThree_MakeSharedByHand(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            std::make_shared<Car>(std::make_shared<Engine>(), std::make_shared<Wheels>()));
    }
    kel::bench::AllocationScope allocations;
    benchmark::DoNotOptimize(
        std::make_shared<Car>(std::make_shared<Engine>(), std::make_shared<Wheels>()));
    state.counters["allocs/resolution"] = static_cast<double>(allocations.allocations());
}
BENCHMARK(BM_Container_GraphOfThree_MakeSharedByHand);

void BM_Container_BuiltSingleton_ProxyResolver(benchmark::State& state) {
    Wiring wiring(state.range(0) != 0);
    wiring.resolver.resolve<std::shared_ptr<Settings>>();
    for (auto _ : state) {
        benchmark::DoNotOptimize(wiring.resolver.resolve<std::shared_ptr<Settings>>());
    }
}
BENCHMARK(BM_Container_BuiltSingleton_ProxyResolver)->ArgName("bridged")->Arg(0)->Arg(1);

void BM_Container_BuiltSingleton_TypeIndexLocator(benchmark::State& state) {
    std::unordered_map<std::type_index, std::function<std::shared_ptr<void>()>> locator;
    auto settings = std::make_shared<Settings>();
    locator.emplace(typeid(Settings), [settings] { return settings; });
    locator.emplace(typeid(Engine), [] { return std::make_shared<Engine>(); });
    for (auto _ : state) {
        auto found = locator.find(typeid(Settings));
        benchmark::DoNotOptimize(
            found == locator.end() ? nullptr : std::static_pointer_cast<Settings>(found->second()));
    }
}
BENCHMARK(BM_Container_BuiltSingleton_TypeIndexLocator);

void BM_Container_RegisterThenResolveFirst(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    std::vector<std::string> names;
    for (std::size_t index = 0; index < count; ++index) {
        names.push_back("service" + std::to_string(index));
    }
    for (auto _ : state) {
        auto container = kel::Container::make();
        auto privateContainer = container->privateContainer();
        for (const std::string& name : names) {
            container->register_<int>(name, privateContainer, nullptr,
                                      [](const kel::ResolverType&) { return 1; });
        }
        kel::ProxyResolver resolver(nullptr, container, privateContainer);
        benchmark::DoNotOptimize(resolver.resolve<int>(names.front()));
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_Container_RegisterThenResolveFirst)->Arg(1000)->Arg(10000)->Complexity(benchmark::oN);

}  // namespace
