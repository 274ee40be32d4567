// Shared set-up of the container tests: a real in-memory sibling registry, a public container
// with its private container, the module surfaces over them and a resolver.
#pragma once

#include <kel/Container/Container.hpp>
#include <kel/Container/InMemoryZorbFoundation.hpp>
#include <kel/Container/ProxyContainer.hpp>
#include <kel/Container/ProxyResolver.hpp>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kel::test {

struct Service : Object {
    explicit Service(std::string label = {}) : label(std::move(label)) {}
    std::string label;
};
struct Dependency : Object {};
struct Other : Object {};

// Two objects that are configured with each other.
struct Left;
struct Right;
struct Left : Object {
    std::shared_ptr<Right> right;
};
struct Right : Object {
    std::weak_ptr<Left> left;
};

// Factories for register_: one that builds a new T from copies of `args` on every call, one
// that returns a copy of `value`.
template <class T, class... Args>
auto makes(Args... args) {
    return [args...](const ResolverType&) { return std::make_shared<T>(args...); };
}
template <class T>
auto returns(T value) {
    return [value](const ResolverType&) { return value; };
}

struct ContainerWorld {
    std::shared_ptr<ZFInMemoryRegistry> registry = ZFInMemoryRegistry::make();
    std::shared_ptr<Container> container = Container::make();
    ProxyContainer module{registry, container};
    ProxyResolver resolver{registry, container, module.private_->publicContainer()};

    const std::shared_ptr<Container>& privateContainer() const {
        return module.private_->publicContainer();
    }
    // Shorthands for registering in the public container and resolving through `resolver`.
    template <class T, class... A>
    decltype(auto) reg(A&&... a) {
        return module.public_->register_<T>(std::forward<A>(a)...);
    }
    template <class T, class... A>
    auto get(A&&... a) const {
        return resolver.resolve<T>(std::forward<A>(a)...);
    }
};

using Strings = std::vector<std::string>;

}  // namespace kel::test
