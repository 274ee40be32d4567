// Types shared by the container tests and the plugin they load with dlopen.
#pragma once

#include <kel/Container/Container.hpp>
#include <kel/Container/ProxyResolver.hpp>

#include <memory>
#include <string>

namespace kel::test {

// Registered by the test binary, resolved inside the plugin.
struct PluginGreeting : Object {
    std::string text;
};

// Registered by the plugin, resolved by the test binary.
struct PluginService : Object {
    int answer = 42;
};

// The plugin's entry points (looked up with dlsym).
using PluginResolveGreeting = bool (*)(const ProxyResolver* resolver, std::string* text);
using PluginRegisterService = void (*)(const std::shared_ptr<Container>* container);
using PluginTypeWord = std::uintptr_t (*)();

}  // namespace kel::test
