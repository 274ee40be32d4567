#include <gtest/gtest.h>

#include <kel/Container/Callbacks.hpp>
#include <kel/Container/Context.hpp>

#include <string>
#include <vector>

#include "ContainerTestSupport.hpp"

namespace kel::test {
namespace {

using ServicePtr = std::shared_ptr<Service>;

// A listener registered in the container that wants to hear about Services.
struct Listener : Object {
    std::vector<std::string> heard;
};

// A callback that writes "<prefix><label of the resolved service>" into its listener.
auto recordInto(std::string prefix) {
    return [prefix](std::shared_ptr<Listener> listener, ServicePtr service, const ResolverType&) {
        listener->heard.push_back(prefix + service->label);
    };
}

struct CallbackWorld : ContainerWorld {
    CallbackWorld() {
        reg<ServicePtr>(makes<Service>("unnamed"));
        reg<ServicePtr>("a", makes<Service>("a"));
        reg<ServicePtr>("b", makes<Service>("b"));
    }

    std::shared_ptr<Listener> listenerWith(CallbackScope scope, const std::string& tag) {
        reg<std::shared_ptr<Listener>>(tag, makes<Listener>())
            .whenResolving<ServicePtr>(std::move(scope), recordInto(tag + ":"));
        return *resolver.resolve<std::shared_ptr<Listener>>(tag);
    }
};

TEST(CallbackScopes, AnyNameAndNamesSelectTheResolutionsTheyHearAbout) {
    CallbackWorld world;
    auto any = world.listenerWith(CallbackScope::any(), "any");
    auto named = world.listenerWith(CallbackScope::name("a"), "name");
    auto both = world.listenerWith(CallbackScope::names({"a", "b"}), "names");

    world.get<ServicePtr>();
    world.get<ServicePtr>("a");
    world.get<ServicePtr>("b");

    EXPECT_EQ(any->heard, (Strings{"any:unnamed", "any:a", "any:b"}));
    EXPECT_EQ(named->heard, (Strings{"name:a"}));
    EXPECT_EQ(both->heard, (Strings{"names:a", "names:b"}));
}

TEST(CallbackFiring, FiresOnceAfterConfigurationNeverForPooledInstancesAndNotForDeadRegistrants) {
    CallbackWorld world;
    std::vector<std::string> events;
    world.reg<ServicePtr>("configured", makes<Service>("c"))
        .thenConfigure([&](ServicePtr, const ResolverType&) { events.push_back("configured"); })
        .inScope(Scope::singleton);
    world.reg<std::shared_ptr<Listener>>(makes<Listener>())
        .whenResolving<ServicePtr>(CallbackScope::name("configured"),
                                   [&](std::shared_ptr<Listener>, ServicePtr, const ResolverType&) {
                                       events.push_back("callback");
                                   });
    auto listener = world.get<std::shared_ptr<Listener>>();

    world.get<ServicePtr>("configured");
    world.get<ServicePtr>("configured");
    EXPECT_EQ(events, (Strings{"configured", "callback"}));

    listener.reset();
    world.container->pool()->graphPass([] { return 0; });
    world.reg<ServicePtr>("configured", makes<Service>()).inScope(Scope::none);
    world.get<ServicePtr>("configured");
    EXPECT_EQ(events.size(), 2u);
}

TEST(CallbackFiring, CastsTheRegisteringInstanceAndSkipsInstancesOfAnotherClass) {
    CallbackWorld world;
    std::vector<std::string> heard;
    const std::pair<const char*, std::shared_ptr<Object>> holders[] = {
        {"listener", std::make_shared<Listener>()}, {"other", std::make_shared<Other>()}};
    for (const auto& [name, holder] : holders) {
        world.reg<std::shared_ptr<Object>>(name, returns(holder))
            .whenResolving<ServicePtr, Listener>(
                CallbackScope::any(),
                [&heard](std::shared_ptr<Listener>, ServicePtr service, const ResolverType&) {
                    heard.push_back(service->label);
                });
        world.get<std::shared_ptr<Object>>(name);
    }
    world.get<ServicePtr>();
    EXPECT_EQ(heard, (Strings{"unnamed"}));
}

// Module, context and bridged registrations fire with their owners; unnamed registrations fire
// before named ones whatever their order.
TEST(CallbackRegistrationSurfaces, ModuleContextAndBridgedRegistrationsFireWithTheirOwners) {
    CallbackWorld world;
    auto owner = std::make_shared<Listener>();
    world.module.callback->whenResolving<ServicePtr>(CallbackScope::name("a"), owner,
                                                     recordInto("module:"));
    world.module.callback->whenResolving<ServicePtr>(CallbackScope::any(), owner,
                                                     recordInto("unnamed:"));
    world.registry->callbackRegistration()->addHook(
        [](const std::shared_ptr<Object>& instance, CallbackRegistrationType& registration) {
            auto listener = std::dynamic_pointer_cast<Listener>(instance);
            registration.whenResolving<ServicePtr>(CallbackScope::any(), listener,
                                                   recordInto("bridged:"));
        });
    world.reg<std::shared_ptr<Listener>>("bridged", makes<Listener>()).whenResolvingBridged();
    auto bridged = *world.get<std::shared_ptr<Listener>>("bridged");

    world.get<ServicePtr>("a", [&](ContextType& context) {
        context.whenResolving<ServicePtr>(CallbackScope::name("a"), owner, recordInto("context:"));
    });
    world.get<ServicePtr>("a");

    EXPECT_EQ(owner->heard,
              (Strings{"unnamed:a", "module:a", "context:a", "unnamed:a", "module:a"}));
    EXPECT_EQ(bridged->heard, (Strings{"bridged:a", "bridged:a"}));
}

TEST(ContextOverrides, NewestOverridesWinAndTheCallbackStoreIsShared) {
    ContainerWorld world;
    world.reg<std::string>(returns(std::string("built")));
    world.reg<std::shared_ptr<Dependency>>(makes<Dependency>());
    std::vector<std::string> seen;
    world
        .reg<ServicePtr>([&](const ResolverType& r) {
            seen.push_back(*r.resolve<std::string>());
            return std::make_shared<Service>();
        })
        .inScope(Scope::none);

    auto outer = std::make_shared<Context>(std::make_shared<CallbackStore>(), world.container,
                                           world.privateContainer());
    outer->set<std::string>("outer");
    outer->set<int>(1);
    auto dependency = std::make_shared<Dependency>();
    outer->set<std::shared_ptr<Dependency>>(dependency);
    ProxyResolver carrying(world.registry, world.container, world.privateContainer(), outer);

    std::shared_ptr<CallbackStore> storeSeen;
    auto answer = carrying.resolve<std::string>([&](ContextType& context) {
        context.set<std::string>("block");
        storeSeen = static_cast<Context&>(context).sharedCallbackStore();
    });
    EXPECT_EQ(answer, "block");
    EXPECT_EQ(storeSeen, outer->sharedCallbackStore());
    EXPECT_EQ(carrying.resolve<int>([](ContextType&) {}), 1);
    EXPECT_EQ(carrying.resolve<std::shared_ptr<Dependency>>(), dependency);
    EXPECT_EQ(world.get<std::string>(), "built");
    EXPECT_EQ(outer->get<std::string>(), "outer");
}

}  // namespace
}  // namespace kel::test
