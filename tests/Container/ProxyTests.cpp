#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/Container/InMemoryZorbFoundation.hpp>
#include <kel/Container/ProxyContainer.hpp>
#include <kel/Container/ProxyResolver.hpp>
#include <kel/Platform/Exception.hpp>
#include <kel/Platform/Log.hpp>

#include <dlfcn.h>

#include <string>

#include "ContainerTestSupport.hpp"
#include "PluginTypes.hpp"

namespace kel::test {
namespace {

using ServicePtr = std::shared_ptr<Service>;
using OtherPtr = std::shared_ptr<Other>;

// Public shadows private and the bridged resolver answers only the class forms; a bridged
// exception is logged once and a bridged instance of the wrong class is silently absent.
TEST(ProxyResolution, PublicShadowsPrivateBridgedAnswersClassFormsAndLogsItsExceptionOnce) {
    ContainerWorld world;
    auto sink = std::make_shared<CapturingLogSink>();
    ScopedLogSink scoped(sink);
    world.module.private_->register_<std::string>(returns(std::string("private")));
    world.module.private_->register_<int>(returns(2));
    world.reg<std::string>(returns(std::string("public")));
    world.module.objc->register_<OtherPtr>(makes<Other>());

    EXPECT_EQ(world.get<std::string>(), "public");
    EXPECT_EQ(world.get<int>(), 2);
    EXPECT_TRUE(world.get<OtherPtr>());
    EXPECT_FALSE(world.resolver.resolveGeneral<OtherPtr>());
    EXPECT_FALSE(world.get<OtherPtr>("named"));

    world.module.objc->register_<ServicePtr>([](const ResolverType&) -> ServicePtr {
        throw Exception("ZFTestException", "nothing to give");
    });
    world.registry->unsafeRegisterForKey(
        bridgedKey<Dependency>(), std::nullopt,
        [](const std::shared_ptr<ZFResolver>&) { return std::make_shared<Other>(); });

    EXPECT_FALSE(world.get<ServicePtr>());
    EXPECT_FALSE(world.get<std::shared_ptr<Dependency>>());
    ASSERT_EQ(sink->records().size(), 1u);
    const LogRecord record = sink->records().front();
    EXPECT_EQ(record.level, LogLevel::error);
    EXPECT_EQ(record.format, "Failed to resolve from objc resolver, error=%{public}@");
    EXPECT_EQ(record.arguments.front().text(),
              DomainError("ZFTestException", 0, {{"reason", "nothing to give"}}).what());
}

TEST(ProxyResolution, OverridesReachTheBridgedSideThroughTheMergedBridgedContext) {
    ContainerWorld world;
    auto older = ZFInMemoryContext::make();
    auto fromOlder = std::make_shared<Other>();
    older->setObject(bridgedKey<Other>(), std::nullopt, fromOlder);
    auto carried = std::make_shared<Context>(std::make_shared<CallbackStore>(), world.container,
                                             world.privateContainer());
    carried->setBridgedContext(older);
    ProxyResolver carrying(world.registry, world.container, world.privateContainer(), carried);

    auto answer = carrying.resolve<OtherPtr>(
        [](ContextType& context) { context.setBridgedContext(ZFInMemoryContext::make()); });
    EXPECT_EQ(answer, fromOlder);
}

TEST(ProxyContainerSurfaces, RegistryIsAskedForItsCallbackOncePerSurface) {
    ContainerWorld world;
    EXPECT_EQ(world.registry->callbackRequests(), 3u);

    ProxyResolver fromSibling = proxyResolver(world.registry);
    EXPECT_EQ(fromSibling.publicResolver(), Container::shared());
    EXPECT_NE(fromSibling.privateResolver(), Container::shared());
    EXPECT_EQ(fromSibling.privateResolver()->pool(), Container::shared()->pool());
}

TEST(ProxyContainerSurfaces, BridgedDefinitionsHonourScopeConfigurationAndOverriding) {
    ContainerWorld world;
    world.reg<std::string>(returns(std::string("from public")));
    world.module.objc->register_<ServicePtr>(makes<Service>())
        .inScope(Scope::singleton)
        .thenConfigure([](ServicePtr service, const ResolverType& r) {
            service->label = *r.resolve<std::string>();
        })
        .canBe(false);

    ServicePtr first = *world.get<ServicePtr>();
    EXPECT_EQ(first->label, "from public");
    EXPECT_EQ(*world.get<ServicePtr>(), first);
    EXPECT_THROW(world.module.objc->register_<ServicePtr>(makes<Service>()), Exception);
}

TEST(ProxyContainerSurfaces, OutermostResolutionsLinkTheBridgedResolverOnce) {
    ContainerWorld world;
    world.reg<ServicePtr>(makes<Service>());
    world.reg<std::shared_ptr<Dependency>>([](const ResolverType& r) {
        r.resolve<ServicePtr>();
        auto current = r.currentObjectGraphResolver(ZFObjectGraphTrait::shared);
        EXPECT_EQ(*current->resolve<ServicePtr>(), *r.resolve<ServicePtr>());
        return std::make_shared<Dependency>();
    });
    world.get<std::shared_ptr<Dependency>>();
    EXPECT_EQ(world.registry->linkCount(), 1u);
    world.get<ServicePtr>("missing");
    EXPECT_EQ(world.registry->linkCount(), 1u);
}

TEST(ProxyExplain, DescribesTheLookupWithoutChangingIt) {
    ContainerWorld world;
    world.reg<ServicePtr>("formal", makes<Service>()).inScope(Scope::singleton);
    world.module.private_->register_<ServicePtr>(makes<Service>());
    auto sink = std::make_shared<CapturingLogSink>();
    ScopedLogSink scoped(sink);

    using ::testing::HasSubstr;
    const std::string text = world.resolver.explain<ServicePtr>("casual");
    EXPECT_THAT(text, HasSubstr("resolving std::shared_ptr<kel::test::Service> (name: "
                                "\"casual\")"));
    EXPECT_THAT(text, HasSubstr("bridged resolver: asked with key \"kel::test::Service\""));
    EXPECT_THAT(text, HasSubstr("other registrations of this type: public container: \"formal\"; "
                                "private container: (no name)"));
    EXPECT_THAT(world.resolver.explain<ServicePtr>("formal"),
                HasSubstr("public container: registered, scope singleton"));
    EXPECT_THAT(world.resolver.explain<int>(), HasSubstr("not asked (not a class type)"));
    EXPECT_TRUE(sink->records().empty());
    EXPECT_FALSE(world.get<ServicePtr>("casual"));
}

TEST(ContainerKeyAcrossSharedObjects, APluginFindsTheApplicationsRegistrationsAndTheReverse) {
    void* plugin = dlopen(KEL_CONTAINER_TEST_PLUGIN, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(plugin, nullptr) << dlerror();
    auto entry = [plugin](const char* name) { return dlsym(plugin, name); };
    auto resolveGreeting =
        reinterpret_cast<PluginResolveGreeting>(entry("kelPluginResolveGreeting"));
    auto registerService =
        reinterpret_cast<PluginRegisterService>(entry("kelPluginRegisterService"));
    auto typeWord = reinterpret_cast<PluginTypeWord>(entry("kelPluginTypeWord"));
    ASSERT_TRUE(resolveGreeting && registerService && typeWord);

    ContainerWorld world;
    auto greeting = std::make_shared<PluginGreeting>();
    greeting->text = "hello from the application";
    world.reg<std::shared_ptr<PluginGreeting>>(returns(greeting));
    std::string text;
    EXPECT_TRUE(resolveGreeting(&world.resolver, &text));
    EXPECT_EQ(text, "hello from the application");
    EXPECT_EQ(typeWord(), detail::typeWord<std::shared_ptr<PluginGreeting>>());

    registerService(&world.container);
    auto service = world.get<std::shared_ptr<PluginService>>();
    ASSERT_TRUE(service);
    EXPECT_EQ((*service)->answer, 7);
}

}  // namespace
}  // namespace kel::test
