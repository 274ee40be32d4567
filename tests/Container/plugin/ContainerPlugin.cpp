// A plugin built with hidden visibility, so that it shares no inline statics with the test
// binary: the container's keys must still agree across the two.
#include "../PluginTypes.hpp"

#define KEL_PLUGIN_ENTRY extern "C" __attribute__((visibility("default")))

using namespace kel::test;

KEL_PLUGIN_ENTRY bool kelPluginResolveGreeting(const kel::ProxyResolver* resolver,
                                               std::string* text) {
    auto greeting = resolver->resolve<std::shared_ptr<PluginGreeting>>();
    if (!greeting) {
        return false;
    }
    *text = (*greeting)->text;
    return true;
}

KEL_PLUGIN_ENTRY void kelPluginRegisterService(const std::shared_ptr<kel::Container>* container) {
    (*container)
        ->register_<std::shared_ptr<PluginService>>(
            std::nullopt, *container, nullptr, [](const kel::ResolverType&) {
                auto service = std::make_shared<PluginService>();
                service->answer = 7;
                return service;
            });
}

KEL_PLUGIN_ENTRY std::uintptr_t kelPluginTypeWord() {
    return kel::detail::typeWord<std::shared_ptr<PluginGreeting>>();
}
