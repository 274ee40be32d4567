// kel::Container and kel::RegistrationContainer — the registrations of an application, and the
// resolution that builds object graphs from them.
//
// Registration only appends a definition to a list; the list is indexed by key at the next
// resolution, the last registration of a key winning. Every resolution runs as a graph pass of
// the container's Pool: graph-scoped instances are shared by the outermost resolution and all it
// triggers, configuration blocks and instance callbacks run once the outermost factory has
// returned (so two objects can be configured with each other), singletons live as long as the
// pool's singleton pool. Client code does not resolve here: it resolves through a ProxyResolver.
//
// Misuse stops the process: a factory cycle (naming the chain of keys), an unexpected
// ZFObjectGraphTrait. A key nobody registered is an absent result.
//
// Thread rules: registration and resolution are main-thread work and take no locks.
// Container::shared() is created once, thread-safely, on first use.
// Ownership: shared. Containers derived from one root share its pool and callback store.
#pragma once

#include "kel/Container/Callbacks.hpp"
#include "kel/Container/Context.hpp"
#include "kel/Container/Definition.hpp"
#include "kel/Container/Environment.hpp"
#include "kel/Container/Key.hpp"
#include "kel/Container/Pool.hpp"
#include "kel/Container/ZorbFoundation.hpp"
#include "kel/Container/detail/AnyInstance.hpp"
#include "kel/Container/detail/DefinitionIndex.hpp"
#include "kel/Export.hpp"

#include <concepts>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kel {

class ProxyResolver;

class KEL_EXPORT Container : public std::enable_shared_from_this<Container> {
    struct Private {};

  public:
    using TestSuite = ContainerTestSuite;
    using Environment = ContainerEnvironment;

    // The application's container.
    static const std::shared_ptr<Container>& shared();

    // An empty container with a new pool and a new callback store.
    static std::shared_ptr<Container> make() { return std::make_shared<Container>(Private{}); }

    // Picks testing factories; derived containers take a copy when they are made.
    Environment environment = Environment::normal();

    // Registers `factory` for T under `name`; its instances resolve their dependencies through
    // `privateContainer`. Nothing is checked now.
    template <class T, class F>
    requires std::invocable<F&, const ResolverType&> Definition<T>
    &register_(std::optional<std::string_view> name,
               const std::shared_ptr<Container>& privateContainer,
               std::shared_ptr<ZFCallbackRegistration> callbackRegistration, F factory) {
        auto definition = std::make_shared<Definition<T>>(
            name, privateContainer, privateContainer.get() == this, std::move(callbackRegistration),
            typename Definition<T>::Factory(std::move(factory)));
        Definition<T>& result = *definition;
        lazyDefinitions_.push_back(std::move(definition));
        return result;
    }

    // A container with this one's environment, pool and callback store and no registrations of
    // its own: what is registered into it is seen only through it.
    std::shared_ptr<Container> privateContainer();

    // True while the pool holds blocks of containers that keep the current graph.
    bool isPreparedForLockingGraph() const noexcept { return pool_->hasDrainCopyPoolGraphBlocks(); }

    // A container over the registrations of this one whose resolutions join the current graph:
    // `shared` uses this pool itself, `copied` a copy that keeps the graph once the pass drains.
    std::shared_ptr<Container> currentObjectGraphContainer(ZFObjectGraphTrait trait);

    // Resolves the definition of `key` as described above; an absent result when there is none.
    // `resolver` is the resolver the resolution was asked through.
    detail::AnyInstance resolveInstance(const Key& key, const ProxyResolver& resolver,
                                        const std::shared_ptr<Context>& context);

    const std::shared_ptr<Pool>& pool() const noexcept { return pool_; }
    const std::shared_ptr<CallbackStore>& callbackStore() const noexcept { return callbackStore_; }

    // For diagnostics: the definition registered under `key` (indexed or not yet), and the names
    // under which the type with the identity word `type` is registered. Neither indexes.
    const detail::DefinitionCore* registration(const Key& key) const;
    std::vector<std::optional<std::string>> registeredNames(std::uintptr_t type) const;

    explicit Container(Private);
    KEL_NO_EXPORT Container(Private, Environment environment, detail::DefinitionIndex definitions,
                            std::shared_ptr<Pool> pool,
                            std::vector<std::shared_ptr<detail::DefinitionCore>> lazyDefinitions,
                            std::shared_ptr<CallbackStore> callbackStore);

  private:
    void indexLazyDefinitions();
    KEL_NO_EXPORT detail::AnyInstance scopedBuild(
        const std::shared_ptr<detail::DefinitionCore>& entry, const ProxyResolver& resolver,
        const std::shared_ptr<Context>& context, Pool& pool);
    KEL_NO_EXPORT void configureAndFire(const detail::DefinitionCore& definition,
                                        const detail::AnyInstance& instance,
                                        const ProxyResolver& buildResolver,
                                        const std::shared_ptr<Context>& context);
    KEL_NO_EXPORT void fireCallbacks(const CallbackStore& store,
                                     const detail::DefinitionCore& definition,
                                     const detail::AnyInstance& instance,
                                     const ProxyResolver& buildResolver,
                                     const std::shared_ptr<Context>& context);

    detail::DefinitionIndex definitions_;
    std::shared_ptr<Pool> pool_;
    std::vector<std::shared_ptr<detail::DefinitionCore>> lazyDefinitions_;
    std::shared_ptr<CallbackStore> callbackStore_;
};

// The registration surface handed to a module: registers into `publicContainer` with
// `privateContainer` resolving the dependencies.
class RegistrationContainer {
  public:
    RegistrationContainer(std::shared_ptr<Container> publicContainer,
                          std::shared_ptr<Container> privateContainer,
                          std::shared_ptr<ZFCallbackRegistration> callbackRegistration)
        : publicContainer_(std::move(publicContainer)),
          privateContainer_(std::move(privateContainer)),
          callbackRegistration_(std::move(callbackRegistration)) {}

    template <class T, class F>
    requires std::invocable<F&, const ResolverType&> Definition<T>
    &register_(std::optional<std::string_view> name, F factory) {
        return publicContainer_->register_<T>(name, privateContainer_, callbackRegistration_,
                                              std::move(factory));
    }
    template <class T, class F>
    requires std::invocable<F&, const ResolverType&> Definition<T>
    &register_(F factory) { return register_<T>(std::nullopt, std::move(factory)); }

    const std::shared_ptr<Container>& publicContainer() const noexcept { return publicContainer_; }
    const std::shared_ptr<Container>& privateContainer() const noexcept {
        return privateContainer_;
    }

  private:
    std::shared_ptr<Container> publicContainer_;
    std::shared_ptr<Container> privateContainer_;
    std::shared_ptr<ZFCallbackRegistration> callbackRegistration_;
};

}  // namespace kel
