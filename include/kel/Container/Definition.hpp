// kel::DefinitionType and kel::Definition<T> — one registration in the container: how to build
// a T (optionally under a name), how long it lives, which factories replace the normal one under
// a test suite, how it is configured once built, and which instance callbacks it asks for.
//
//     container->register_<std::shared_ptr<Api>>([](const kel::ResolverType& r) {
//         return std::make_shared<Api>(*r.resolve<std::shared_ptr<Http>>());
//     })
//         .inScope(kel::Scope::singleton)
//         .whenTesting({Container::TestSuite::automation}, makeFakeApi)
//         .thenConfigure([](std::shared_ptr<Api> api, const kel::ResolverType& r) { ... });
//
// Definitions are made only by Container::register_. Builders mutate the definition and return
// it, so calls chain. A new definition is in graph scope.
//
// Thread rules: built on the registering (main) thread before resolution; not locked, and never
// changed while a resolution of it runs (except its remembered singleton slot, a main-thread
// cache).
// Ownership: held by its container. It holds its private container strongly, except when that
// is the container it is registered in (which already owns it): then weakly, so that a
// container and its own definitions do not keep each other alive.
#pragma once

#include "kel/Container/Callbacks.hpp"
#include "kel/Container/DefinitionConfiguration.hpp"
#include "kel/Container/Environment.hpp"
#include "kel/Container/Key.hpp"
#include "kel/Container/ResolverType.hpp"
#include "kel/Container/ZorbFoundation.hpp"
#include "kel/Container/detail/AnyInstance.hpp"
#include "kel/Export.hpp"

#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kel {

class Container;

// The type-erased form in which the container stores definitions.
class KEL_EXPORT DefinitionType {
  public:
    virtual ~DefinitionType() = default;
    virtual const Key& key() const = 0;
};

namespace detail {

// The fields every definition has, and the build steps the container calls on them.
class DefinitionCore : public DefinitionType {
  public:
    DefinitionCore(Key key, const std::shared_ptr<Container>& privateContainer,
                   bool privateIsRegistrant,
                   std::shared_ptr<ZFCallbackRegistration> callbackRegistration)
        : key_(std::move(key)),
          publicContainer_(privateContainer),
          privateContainer_(privateIsRegistrant ? nullptr : privateContainer),
          callbackRegistration_(std::move(callbackRegistration)) {}

    const Key& key() const final { return key_; }
    Scope scope() const noexcept { return scope_; }
    const std::optional<std::string>& name() const noexcept { return key_.namespace_; }
    const std::shared_ptr<DefinitionConfigurationType>& configuration() const noexcept {
        return configuration_;
    }
    const std::vector<std::shared_ptr<CallbackInstanceDefinitionType>>& callbacks() const noexcept {
        return callbacks_;
    }
    const std::shared_ptr<ZFCallbackRegistration>& callbackRegistration() const noexcept {
        return callbackRegistration_;
    }
    // The container that resolves the dependencies of this definition's instances.
    std::shared_ptr<Container> privateContainer() const {
        return privateContainer_ ? privateContainer_ : publicContainer_.lock();
    }

    // The singleton of this definition's key in the singleton pool numbered `singletonPoolId`, as
    // remembered by rememberSingleton; null when none is remembered for that pool. Singleton
    // slots are never erased, so a remembered slot stays valid while its pool lives, and the
    // caller's pool is alive.
    const AnyInstance* rememberedSingleton(std::uint64_t singletonPoolId) const noexcept {
        return singletonSlot_.poolId == singletonPoolId ? singletonSlot_.instance : nullptr;
    }
    void rememberSingleton(std::uint64_t singletonPoolId,
                           const AnyInstance* instance) const noexcept {
        singletonSlot_ = SingletonSlot{singletonPoolId, instance};
    }

    // Calls the factory chosen for the environment.
    virtual AnyInstance build(const ContainerEnvironment& environment,
                              const ResolverType& resolver) const = 0;
    // Registers the definition's callback requests for a freshly built instance.
    virtual void registerCallbacks(const std::shared_ptr<CallbackStore>& store,
                                   const AnyInstance& instance) const = 0;

  protected:
    Key key_;
    Scope scope_ = Scope::graph;
    std::shared_ptr<DefinitionConfigurationType> configuration_;
    std::weak_ptr<Container> publicContainer_;
    std::shared_ptr<Container> privateContainer_;
    std::shared_ptr<ZFCallbackRegistration> callbackRegistration_;
    std::vector<std::shared_ptr<CallbackInstanceDefinitionType>> callbacks_;

  private:
    // Where the singleton of this key was last found, so that resolving a built singleton takes
    // one lookup (the definition's) rather than two. A cache: changing it changes no behaviour.
    struct SingletonSlot {
        std::uint64_t poolId = 0;
        const AnyInstance* instance = nullptr;
    };
    mutable SingletonSlot singletonSlot_;
};

}  // namespace detail

template <class T>
class Definition final : public detail::DefinitionCore {
  public:
    using Factory = std::function<T(const ResolverType&)>;

    Definition(std::optional<std::string_view> name,
               const std::shared_ptr<Container>& privateContainer, bool privateIsRegistrant,
               std::shared_ptr<ZFCallbackRegistration> callbackRegistration, Factory factory)
        : DefinitionCore(toKey<T>(name), privateContainer, privateIsRegistrant,
                         std::move(callbackRegistration)),
          factory_(std::move(factory)) {}

    Definition& inScope(Scope scope) {
        scope_ = scope;
        return *this;
    }

    // Runs `block(instance, resolver)` on each built instance once the outermost resolution has
    // returned; replaces an earlier configuration.
    template <class F>
    requires std::invocable<F&, T, const ResolverType&> Definition& thenConfigure(F block) {
        configuration_ = std::make_shared<DefinitionConfiguration<T, T>>(std::move(block));
        return *this;
    }
    // The same with the instance cast to Cast first (a failed cast stops the process).
    template <class Cast, class F>
    requires std::invocable<F&, Cast, const ResolverType&> Definition& thenConfigure(F block) {
        configuration_ = std::make_shared<DefinitionConfiguration<T, Cast>>(std::move(block));
        return *this;
    }

    // Uses `factory` instead of the normal one in an environment testing exactly one of the
    // suite's members (one entry per member: an environment testing several members at once,
    // such as `all`, uses the normal factory).
    template <class F>
    Definition& whenTesting(ContainerTestSuite suite, F factory) {
        Factory stored(std::move(factory));
        for (ContainerTestSuite member : suite.elements()) {
            testingFactories_.insert_or_assign(member, stored);
        }
        return *this;
    }

    // Calls `callback(instance as V, resolved U, resolver)` for each U resolved in `scope` after
    // an instance of this definition is built (V defaults to the registered class).
    template <class U, class V = void, class F>
    Definition& whenResolving(CallbackScope scope, F callback) {
        static_assert(detail::IsSharedPointer<T>::value, "whenResolving needs a class type T");
        using Registering =
            std::conditional_t<std::is_void_v<V>, typename detail::IsSharedPointer<T>::Element, V>;
        callbacks_.push_back(std::make_shared<CallbackInstanceDefinition<T, U, Registering>>(
            typename CallbackInstanceDefinition<T, U, Registering>::Wrapper(std::move(callback)),
            std::move(scope)));
        return *this;
    }

    // Hands each built instance to the sibling side's callback registration of this definition,
    // which registers the callbacks it wants for it.
    Definition& whenResolvingBridged() {
        callbacks_.push_back(std::make_shared<CallbackInstanceBridgedDefinition>(
            publicContainer_, callbackRegistration_));
        return *this;
    }

    detail::AnyInstance build(const ContainerEnvironment& environment,
                              const ResolverType& resolver) const override {
        return detail::AnyInstance::make<T>(chooseFactory(environment)(resolver));
    }

    void registerCallbacks(const std::shared_ptr<CallbackStore>& store,
                           const detail::AnyInstance& instance) const override {
        if (callbacks_.empty()) {
            return;
        }
        std::shared_ptr<Object> object;
        if constexpr (detail::ClassObject<T>) {
            object = instance.as<T>();
        }
        const std::shared_ptr<Container> container = privateContainer();
        for (const auto& callback : callbacks_) {
            callback->registerInstance(store, instance, object, container);
        }
    }

  private:
    const Factory& chooseFactory(const ContainerEnvironment& environment) const {
        if (environment.isNormal() || testingFactories_.empty()) {
            return factory_;
        }
        auto found = testingFactories_.find(*environment.suite());
        return found == testingFactories_.end() ? factory_ : found->second;
    }

    Factory factory_;
    std::unordered_map<ContainerTestSuite, Factory, ContainerTestSuite::Hash> testingFactories_;
};

}  // namespace kel
