#include <gtest/gtest.h>

#include <kel/Container/Container.hpp>
#include <kel/Container/ProxyResolver.hpp>

#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "ContainerTestSupport.hpp"

namespace kel::test {
namespace {

using ServicePtr = std::shared_ptr<Service>;

TEST(ContainerRegistration, TypeAndNameFormTheKeyAndTheLastRegistrationWins) {
    EXPECT_NE(toKey<int>(), toKey<int>("a"));
    EXPECT_NE(toKey<int>("a"), toKey<long>("a"));
    EXPECT_EQ(toKey<int>("a"), toKey<int>(std::string("a")));
    EXPECT_EQ(toKey<ServicePtr>("x").description(),
              "std::shared_ptr<kel::test::Service> (name: \"x\")");

    // Late registrations are indexed at the next resolution.
    ContainerWorld world;
    world.reg<std::string>(returns(std::string("first")));
    world.reg<std::string>(returns(std::string("second")));
    EXPECT_EQ(world.get<std::string>(), "second");
    EXPECT_EQ(world.get<std::string>("named"), std::nullopt);

    world.reg<std::string>("named", returns(std::string("late")));
    EXPECT_EQ(world.get<std::string>("named"), "late");
    EXPECT_EQ(world.get<int>(), std::nullopt);
}

// Each key is looked up twice in a row (found by scanning while the graph is small) and again
// in a second round, once the graph has grown past the point where it adds a hash index: the
// keys stored before the index must be found through it.
TEST(ContainerScopes, GraphInstancesAreSharedWithinOneOutermostResolutionOnly) {
    ContainerWorld world;
    int built = 0;
    constexpr int count = 80;
    for (int index = 0; index < count; ++index) {
        world.reg<ServicePtr>("n" + std::to_string(index), [&](const ResolverType&) {
            ++built;
            return std::make_shared<Service>();
        });
    }
    world.reg<std::shared_ptr<Dependency>>([&](const ResolverType& r) {
        for (int round = 0; round < 2; ++round) {
            for (int index = 0; index < count; ++index) {
                const std::string name = "n" + std::to_string(index);
                EXPECT_EQ(*r.resolve<ServicePtr>(name), *r.resolve<ServicePtr>(name));
            }
        }
        EXPECT_EQ(world.container->pool()->graphCount(), static_cast<std::size_t>(count));
        return std::make_shared<Dependency>();
    });

    ASSERT_TRUE(world.get<std::shared_ptr<Dependency>>());
    EXPECT_EQ(built, count);
    EXPECT_EQ(world.container->pool()->graphCount(), 0u);
    EXPECT_EQ(world.container->pool()->depth(), 0u);
    EXPECT_NE(*world.get<ServicePtr>("n0"), *world.get<ServicePtr>("n0"));
}

TEST(ContainerScopes, SingletonsAreSharedThroughDerivedContainersAndNoneBuildsEveryTime) {
    ContainerWorld world;
    int built = 0;
    world.reg<ServicePtr>(makes<Service>()).inScope(Scope::singleton);
    world.reg<int>([&](const ResolverType&) { return ++built; }).inScope(Scope::none);

    ServicePtr first = *world.get<ServicePtr>();
    EXPECT_EQ(*world.get<ServicePtr>(), first);
    ProxyResolver derived(world.registry,
                          world.container->currentObjectGraphContainer(ZFObjectGraphTrait::copied),
                          world.container->privateContainer());
    EXPECT_EQ(*derived.resolve<ServicePtr>(), first);
    ProxyResolver throughShared(
        world.registry, world.container->currentObjectGraphContainer(ZFObjectGraphTrait::shared));
    EXPECT_EQ(*throughShared.resolve<ServicePtr>(), first);

    auto privateContainer = world.container->privateContainer();
    privateContainer->register_<std::shared_ptr<Other>>(std::nullopt, privateContainer, nullptr,
                                                        makes<Other>());
    // Another definition of the same key in a private container finds the pooled singleton.
    privateContainer
        ->register_<ServicePtr>(std::nullopt, privateContainer, nullptr, makes<Service>())
        .inScope(Scope::singleton);
    ProxyResolver privateOnly(world.registry, privateContainer, privateContainer);
    EXPECT_EQ(*privateOnly.resolve<ServicePtr>(), first);
    EXPECT_TRUE(privateOnly.resolve<std::shared_ptr<Other>>());
    EXPECT_FALSE(world.get<std::shared_ptr<Other>>());

    EXPECT_EQ(world.get<int>(), 1);
    EXPECT_EQ(world.get<int>(), 2);
}

TEST(ContainerConfiguration, RunsOncePerBuiltInstanceAfterTheOutermostFactory) {
    ContainerWorld world;
    std::vector<std::string> events;
    world
        .reg<ServicePtr>([&](const ResolverType&) {
            events.push_back("build service");
            return std::make_shared<Service>();
        })
        .thenConfigure(
            [&](ServicePtr, const ResolverType&) { events.push_back("first configuration"); })
        .thenConfigure(
            [&](ServicePtr, const ResolverType&) { events.push_back("configure service"); });
    world
        .reg<std::shared_ptr<Dependency>>([&](const ResolverType& r) {
            r.resolve<ServicePtr>();
            r.resolve<ServicePtr>();
            events.push_back("build dependency");
            return std::make_shared<Dependency>();
        })
        .thenConfigure([&](std::shared_ptr<Dependency>, const ResolverType&) {
            events.push_back("configure dependency");
        });

    world.get<std::shared_ptr<Dependency>>();
    EXPECT_EQ(events, (Strings{"build service", "build dependency", "configure dependency",
                               "configure service"}));
}

// Two graph objects are configured with each other; a configuration block may ask for a
// subclass of the registered type.
TEST(ContainerConfiguration, GraphObjectsConfiguredWithEachOtherAndCastToTheRequestedClass) {
    ContainerWorld world;
    std::shared_ptr<Object> configured;
    world.reg<std::shared_ptr<Object>>(makes<Service>("x"))
        .thenConfigure<ServicePtr>(
            [&](ServicePtr service, const ResolverType&) { configured = service; });
    world.reg<std::shared_ptr<Left>>(makes<Left>())
        .thenConfigure([](std::shared_ptr<Left> left, const ResolverType& r) {
            left->right = *r.resolve<std::shared_ptr<Right>>();
        });
    world.reg<std::shared_ptr<Right>>(makes<Right>())
        .thenConfigure([](std::shared_ptr<Right> right, const ResolverType& r) {
            right->left = *r.resolve<std::shared_ptr<Left>>();
        });

    auto left = *world.get<std::shared_ptr<Left>>();
    ASSERT_TRUE(left->right);
    EXPECT_EQ(left->right->left.lock(), left);
    EXPECT_EQ(configured, *world.get<std::shared_ptr<Object>>());
}

TEST(ContainerPool, DrainRunsConfigBlocksFirstLinkingLastAndBlocksAddedWhileDraining) {
    auto pool = std::make_shared<Pool>();
    std::vector<std::string> order;
    pool->graphPass([&] {
        pool->addDrainBlock(DrainAction::linking, [&] { order.push_back("link 1"); });
        pool->addDrainBlock(DrainAction::config, [&] { order.push_back("config 1"); });
        pool->addDrainBlock(DrainAction::config, [&] {
            order.push_back("config 2");
            pool->addDrainBlock(DrainAction::linking, [&] { order.push_back("added link"); });
            pool->addDrainBlock(DrainAction::config, [&] { order.push_back("added config"); });
        });
        pool->addDrainBlock(DrainAction::linking, [&] { order.push_back("link 2"); });
        pool->graphPass([&] { return 0; });
        EXPECT_TRUE(order.empty());
        return 0;
    });
    EXPECT_EQ(order,
              (Strings{"config 2", "config 1", "link 1", "link 2", "added config", "added link"}));
}

TEST(ContainerPool, ADerivedContainerKeepsTheGraphOfThePassThatMadeIt) {
    ContainerWorld world;
    world.reg<ServicePtr>(makes<Service>());
    std::shared_ptr<Container> kept;
    std::shared_ptr<Container> copied;
    world.reg<std::shared_ptr<Dependency>>([&](const ResolverType& r) {
        r.resolve<ServicePtr>();
        copied = world.container->currentObjectGraphContainer(ZFObjectGraphTrait::copied);
        EXPECT_FALSE(world.container->isPreparedForLockingGraph());
        kept = world.container->currentObjectGraphContainer(ZFObjectGraphTrait::shared);
        EXPECT_TRUE(world.container->isPreparedForLockingGraph());
        return std::make_shared<Dependency>();
    });
    ServicePtr inGraph;
    world.reg<std::shared_ptr<Other>>([&](const ResolverType& r) {
        inGraph = *r.resolve<ServicePtr>();
        r.resolve<std::shared_ptr<Dependency>>();
        return std::make_shared<Other>();
    });

    world.get<std::shared_ptr<Other>>();
    EXPECT_FALSE(world.container->isPreparedForLockingGraph());
    ASSERT_TRUE(kept);
    EXPECT_NE(kept->pool(), world.container->pool());
    EXPECT_FALSE(kept->pool()->isGraphDrainingEnabled());
    ProxyResolver later(nullptr, kept);
    EXPECT_EQ(*later.resolve<ServicePtr>(), inGraph);
    EXPECT_EQ(*later.resolve<ServicePtr>(), inGraph);
    EXPECT_EQ(*ProxyResolver(nullptr, copied).resolve<ServicePtr>(), inGraph);
    EXPECT_NE(*world.get<ServicePtr>(), inGraph);
}

TEST(ContainerPool, AThrowingFactoryLeavesThePassAndDropsItsPendingWork) {
    ContainerWorld world;
    int configured = 0;
    world.reg<ServicePtr>(makes<Service>()).thenConfigure([&](ServicePtr, const ResolverType&) {
        ++configured;
    });
    bool fail = true;
    world.reg<std::shared_ptr<Dependency>>([&](const ResolverType& r) {
        r.resolve<ServicePtr>();
        if (fail) {
            throw std::runtime_error("no dependency today");
        }
        return std::make_shared<Dependency>();
    });

    EXPECT_THROW(world.get<std::shared_ptr<Dependency>>(), std::runtime_error);
    EXPECT_EQ(world.container->pool()->depth(), 0u);
    EXPECT_EQ(world.container->pool()->graphCount(), 0u);
    EXPECT_EQ(configured, 0);
    fail = false;
    EXPECT_TRUE(world.get<std::shared_ptr<Dependency>>());
    EXPECT_EQ(configured, 1);
}

TEST(ContainerEnvironment, PicksTheTestingFactoryOfASingleSuiteMember) {
    ContainerWorld world;
    world.reg<std::string>(returns(std::string("normal")))
        .whenTesting({Container::TestSuite::performance, Container::TestSuite::automation},
                     returns(std::string("testing")));
    EXPECT_EQ(world.get<std::string>(), "normal");
    using Suite = Container::TestSuite;
    const std::pair<Suite, const char*> cases[] = {
        {Suite::performance, "testing"}, {Suite::automation, "testing"}, {Suite::all, "normal"}};
    for (const auto& [suite, expected] : cases) {
        world.container->environment = Container::Environment::testing(suite);
        EXPECT_EQ(world.get<std::string>(), expected) << suite.description();
    }

    EXPECT_EQ(world.container->environment.description(), "testing (all)");
    EXPECT_EQ(Container::TestSuite(4).description(), "unknown");
    EXPECT_EQ(world.container->privateContainer()->environment, world.container->environment);
}

using ContainerDeathTest = ::testing::Test;

// A failed configuration cast names both types; a factory cycle names the chain of keys.
TEST_F(ContainerDeathTest, FailedConfigurationCastAndFactoryCycleNameTheirTypes) {
    ContainerWorld world;
    world.reg<std::shared_ptr<Object>>(makes<Other>())
        .thenConfigure<ServicePtr>([](ServicePtr, const ResolverType&) {});
    EXPECT_DEATH(world.get<std::shared_ptr<Object>>(),
                 "provided input cannot be cast\\. inputType=kel::test::Other, "
                 "castType=kel::test::Service");
    world.reg<ServicePtr>([](const ResolverType& r) {
        r.resolve<std::shared_ptr<Dependency>>();
        return std::make_shared<Service>();
    });
    world.reg<std::shared_ptr<Dependency>>([](const ResolverType& r) {
        r.resolve<ServicePtr>();
        return std::make_shared<Dependency>();
    });
    EXPECT_DEATH(world.get<ServicePtr>(),
                 "factory cycle while resolving: std::shared_ptr<kel::test::Service> -> "
                 "std::shared_ptr<kel::test::Dependency> -> std::shared_ptr<kel::test::Service>");
}

TEST_F(ContainerDeathTest, PoolDepthBelowZeroAndUnexpectedTraitStopTheProcess) {
    Pool pool;
    EXPECT_DEATH(pool.exitPass(), "pool depth would go below zero");
    auto container = Container::make();
    EXPECT_DEATH(container->currentObjectGraphContainer(static_cast<ZFObjectGraphTrait>(7)),
                 "unexpected ZFObjectGraphTrait value 7");
}

}  // namespace
}  // namespace kel::test
