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

TEST(ContainerKey, TypeAndNameFormTheKey) {
    EXPECT_NE(toKey<int>(), toKey<int>("a"));
    EXPECT_NE(toKey<int>("a"), toKey<long>("a"));
    EXPECT_EQ(toKey<int>("a"), toKey<int>(std::string("a")));
    EXPECT_EQ(toKey<ServicePtr>("x").description(),
              "std::shared_ptr<kel::test::Service> (name: \"x\")");
}

TEST(ContainerRegistration, LastRegistrationWinsAndLateOnesAreIndexedAtTheNextResolution) {
    ContainerWorld world;
    world.module.public_->register_<std::string>(returns(std::string("first")));
    world.module.public_->register_<std::string>(returns(std::string("second")));
    EXPECT_EQ(world.resolver.resolve<std::string>(), "second");
    EXPECT_EQ(world.resolver.resolve<std::string>("named"), std::nullopt);

    world.module.public_->register_<std::string>("named", returns(std::string("late")));
    EXPECT_EQ(world.resolver.resolve<std::string>("named"), "late");
    EXPECT_EQ(world.resolver.resolve<int>(), std::nullopt);
}

// Each key is looked up twice in a row (found by scanning while the graph is small) and again
// in a second round, once the graph has grown past the point where it adds a hash index: the
// keys stored before the index must be found through it.
TEST(ContainerScopes, GraphInstancesAreSharedWithinOneOutermostResolutionOnly) {
    ContainerWorld world;
    int built = 0;
    constexpr int count = 80;
    for (int index = 0; index < count; ++index) {
        world.module.public_->register_<ServicePtr>("n" + std::to_string(index),
                                                    [&](const ResolverType&) {
                                                        ++built;
                                                        return std::make_shared<Service>();
                                                    });
    }
    world.module.public_->register_<std::shared_ptr<Dependency>>([&](const ResolverType& r) {
        for (int round = 0; round < 2; ++round) {
            for (int index = 0; index < count; ++index) {
                const std::string name = "n" + std::to_string(index);
                EXPECT_EQ(*r.resolve<ServicePtr>(name), *r.resolve<ServicePtr>(name));
            }
        }
        EXPECT_EQ(world.container->pool()->graphCount(), static_cast<std::size_t>(count));
        return std::make_shared<Dependency>();
    });

    ASSERT_TRUE(world.resolver.resolve<std::shared_ptr<Dependency>>());
    EXPECT_EQ(built, count);
    EXPECT_EQ(world.container->pool()->graphCount(), 0u);
    EXPECT_EQ(world.container->pool()->depth(), 0u);
    EXPECT_NE(*world.resolver.resolve<ServicePtr>("n0"), *world.resolver.resolve<ServicePtr>("n0"));
}

TEST(ContainerScopes, SingletonsAreSharedThroughDerivedContainersAndNoneBuildsEveryTime) {
    ContainerWorld world;
    int built = 0;
    world.module.public_->register_<ServicePtr>(makes<Service>()).inScope(Scope::singleton);
    world.module.public_->register_<int>([&](const ResolverType&) { return ++built; })
        .inScope(Scope::none);

    ServicePtr first = *world.resolver.resolve<ServicePtr>();
    EXPECT_EQ(*world.resolver.resolve<ServicePtr>(), first);
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
    EXPECT_FALSE(world.resolver.resolve<std::shared_ptr<Other>>());

    EXPECT_EQ(world.resolver.resolve<int>(), 1);
    EXPECT_EQ(world.resolver.resolve<int>(), 2);
}

TEST(ContainerConfiguration, RunsOncePerBuiltInstanceAfterTheOutermostFactory) {
    ContainerWorld world;
    std::vector<std::string> events;
    world.module.public_
        ->register_<ServicePtr>([&](const ResolverType&) {
            events.push_back("build service");
            return std::make_shared<Service>();
        })
        .thenConfigure(
            [&](ServicePtr, const ResolverType&) { events.push_back("first configuration"); })
        .thenConfigure(
            [&](ServicePtr, const ResolverType&) { events.push_back("configure service"); });
    world.module.public_
        ->register_<std::shared_ptr<Dependency>>([&](const ResolverType& r) {
            r.resolve<ServicePtr>();
            r.resolve<ServicePtr>();
            events.push_back("build dependency");
            return std::make_shared<Dependency>();
        })
        .thenConfigure([&](std::shared_ptr<Dependency>, const ResolverType&) {
            events.push_back("configure dependency");
        });

    world.resolver.resolve<std::shared_ptr<Dependency>>();
    EXPECT_EQ(events, (std::vector<std::string>{"build service", "build dependency",
                                                "configure dependency", "configure service"}));
}

TEST(ContainerConfiguration, TwoGraphObjectsAreConfiguredWithEachOther) {
    ContainerWorld world;
    world.module.public_->register_<std::shared_ptr<Left>>(makes<Left>())
        .thenConfigure([](std::shared_ptr<Left> left, const ResolverType& r) {
            left->right = *r.resolve<std::shared_ptr<Right>>();
        });
    world.module.public_->register_<std::shared_ptr<Right>>(makes<Right>())
        .thenConfigure([](std::shared_ptr<Right> right, const ResolverType& r) {
            right->left = *r.resolve<std::shared_ptr<Left>>();
        });

    auto left = *world.resolver.resolve<std::shared_ptr<Left>>();
    ASSERT_TRUE(left->right);
    EXPECT_EQ(left->right->left.lock(), left);
}

TEST(ContainerConfiguration, CastsToTheRequestedClass) {
    ContainerWorld world;
    std::shared_ptr<Object> configured;
    world.module.public_->register_<std::shared_ptr<Object>>(makes<Service>("x"))
        .thenConfigure<ServicePtr>(
            [&](ServicePtr service, const ResolverType&) { configured = service; });
    auto resolved = world.resolver.resolve<std::shared_ptr<Object>>();
    EXPECT_EQ(configured, *resolved);
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
    EXPECT_EQ(order, (std::vector<std::string>{"config 2", "config 1", "link 1", "link 2",
                                               "added config", "added link"}));
}

TEST(ContainerPool, ADerivedContainerKeepsTheGraphOfThePassThatMadeIt) {
    ContainerWorld world;
    world.module.public_->register_<ServicePtr>(makes<Service>());
    std::shared_ptr<Container> kept;
    std::shared_ptr<Container> copied;
    world.module.public_->register_<std::shared_ptr<Dependency>>([&](const ResolverType& r) {
        r.resolve<ServicePtr>();
        copied = world.container->currentObjectGraphContainer(ZFObjectGraphTrait::copied);
        EXPECT_FALSE(world.container->isPreparedForLockingGraph());
        kept = world.container->currentObjectGraphContainer(ZFObjectGraphTrait::shared);
        EXPECT_TRUE(world.container->isPreparedForLockingGraph());
        return std::make_shared<Dependency>();
    });
    ServicePtr inGraph;
    world.module.public_->register_<std::shared_ptr<Other>>([&](const ResolverType& r) {
        inGraph = *r.resolve<ServicePtr>();
        r.resolve<std::shared_ptr<Dependency>>();
        return std::make_shared<Other>();
    });

    world.resolver.resolve<std::shared_ptr<Other>>();
    EXPECT_FALSE(world.container->isPreparedForLockingGraph());
    ASSERT_TRUE(kept);
    EXPECT_NE(kept->pool(), world.container->pool());
    EXPECT_FALSE(kept->pool()->isGraphDrainingEnabled());
    ProxyResolver later(nullptr, kept);
    EXPECT_EQ(*later.resolve<ServicePtr>(), inGraph);
    EXPECT_EQ(*later.resolve<ServicePtr>(), inGraph);
    EXPECT_EQ(*ProxyResolver(nullptr, copied).resolve<ServicePtr>(), inGraph);
    EXPECT_NE(*world.resolver.resolve<ServicePtr>(), inGraph);
}

TEST(ContainerPool, AThrowingFactoryLeavesThePassAndDropsItsPendingWork) {
    ContainerWorld world;
    int configured = 0;
    world.module.public_->register_<ServicePtr>(makes<Service>())
        .thenConfigure([&](ServicePtr, const ResolverType&) { ++configured; });
    bool fail = true;
    world.module.public_->register_<std::shared_ptr<Dependency>>([&](const ResolverType& r) {
        r.resolve<ServicePtr>();
        if (fail) {
            throw std::runtime_error("no dependency today");
        }
        return std::make_shared<Dependency>();
    });

    EXPECT_THROW(world.resolver.resolve<std::shared_ptr<Dependency>>(), std::runtime_error);
    EXPECT_EQ(world.container->pool()->depth(), 0u);
    EXPECT_EQ(world.container->pool()->graphCount(), 0u);
    EXPECT_EQ(configured, 0);
    fail = false;
    EXPECT_TRUE(world.resolver.resolve<std::shared_ptr<Dependency>>());
    EXPECT_EQ(configured, 1);
}

TEST(ContainerEnvironment, PicksTheTestingFactoryOfASingleSuiteMember) {
    ContainerWorld world;
    world.module.public_->register_<std::string>(returns(std::string("normal")))
        .whenTesting({Container::TestSuite::performance, Container::TestSuite::automation},
                     returns(std::string("testing")));
    EXPECT_EQ(world.resolver.resolve<std::string>(), "normal");
    world.container->environment =
        Container::Environment::testing(Container::TestSuite::performance);
    EXPECT_EQ(world.resolver.resolve<std::string>(), "testing");
    world.container->environment =
        Container::Environment::testing(Container::TestSuite::automation);
    EXPECT_EQ(world.resolver.resolve<std::string>(), "testing");
    world.container->environment = Container::Environment::testing(Container::TestSuite::all);
    EXPECT_EQ(world.resolver.resolve<std::string>(), "normal");

    EXPECT_EQ(world.container->environment.description(), "testing (all)");
    EXPECT_EQ(Container::TestSuite(4).description(), "unknown");
    EXPECT_EQ(world.container->privateContainer()->environment, world.container->environment);
}

using ContainerDeathTest = ::testing::Test;

TEST_F(ContainerDeathTest, FailedConfigurationCastNamesBothTypes) {
    ContainerWorld world;
    world.module.public_->register_<std::shared_ptr<Object>>(makes<Other>())
        .thenConfigure<ServicePtr>([](ServicePtr, const ResolverType&) {});
    EXPECT_DEATH(world.resolver.resolve<std::shared_ptr<Object>>(),
                 "provided input cannot be cast\\. inputType=kel::test::Other, "
                 "castType=kel::test::Service");
}

TEST_F(ContainerDeathTest, FactoryCycleNamesTheChainOfKeys) {
    ContainerWorld world;
    world.module.public_->register_<ServicePtr>([](const ResolverType& r) {
        r.resolve<std::shared_ptr<Dependency>>();
        return std::make_shared<Service>();
    });
    world.module.public_->register_<std::shared_ptr<Dependency>>([](const ResolverType& r) {
        r.resolve<ServicePtr>();
        return std::make_shared<Dependency>();
    });
    EXPECT_DEATH(world.resolver.resolve<ServicePtr>(),
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
