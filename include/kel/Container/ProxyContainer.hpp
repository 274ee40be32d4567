// kel::ProxyContainer, kel::ProxyRegistrationContainer and kel::ProxyDefinition<T> — how a
// module registers: `public_` and `private_` register into the public container and into its
// private container, `objc` into the sibling framework's registry, `callback` registers instance
// callbacks.
//
//     kel::ProxyContainer module(registry, kel::Container::shared());
//     module.public_->register_<std::shared_ptr<Api>>(makeApi).inScope(kel::Scope::singleton);
//     module.private_->register_<std::shared_ptr<Http>>(makeHttp);
//     module.objc->register_<std::shared_ptr<Legacy>>(makeLegacy).canBe(false);
//
// Thread rules: main-thread work, no lock. Ownership: the surfaces are fixed at construction and
// shared; the bridged registry keeps the factories registered through `objc`.
#pragma once

#include "kel/Container/Callbacks.hpp"
#include "kel/Container/Container.hpp"
#include "kel/Container/DefinitionConfiguration.hpp"
#include "kel/Container/ProxyResolver.hpp"
#include "kel/Container/ZorbFoundation.hpp"
#include "kel/Container/detail/AnyInstance.hpp"
#include "kel/Export.hpp"

#include <concepts>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kel {

// The builder of a registration on the sibling side; each call is forwarded to the bridged
// definition.
template <class T>
class ProxyDefinition {
    static_assert(detail::ClassObject<T>, "the sibling side registers class types only");
    using Class = typename detail::ClassObjectTraits<T>::Class;

  public:
    ProxyDefinition(std::shared_ptr<ZFDefinition> definition,
                    std::shared_ptr<Container> publicContainer,
                    std::shared_ptr<Container> privateContainer)
        : definition_(std::move(definition)),
          publicContainer_(std::move(publicContainer)),
          privateContainer_(std::move(privateContainer)) {}

    // Sends 0 for none, 1 for graph, 2 for singleton.
    ProxyDefinition& inScope(Scope scope) {
        definition_->inScope(scope == Scope::graph ? 1 : scope == Scope::singleton ? 2 : 0);
        return *this;
    }

    template <class F>
    requires std::invocable<F&, T, const ResolverType&> ProxyDefinition& thenConfigure(F block) {
        return thenConfigure<T>(std::move(block));
    }
    template <class Cast, class F>
    requires std::invocable<F&, Cast, const ResolverType&> ProxyDefinition& thenConfigure(F block) {
        auto configuration =
            std::make_shared<DefinitionConfiguration<std::shared_ptr<Object>, Cast>>(
                std::move(block));
        definition_->withConfiguration(
            [configuration, publicContainer = publicContainer_,
             privateContainer = privateContainer_](const std::shared_ptr<Object>& instance,
                                                   const std::shared_ptr<ZFResolver>& bridged) {
                ProxyResolver resolver(bridged, publicContainer, privateContainer);
                configuration->configure(
                    detail::AnyInstance::make<std::shared_ptr<Object>>(instance), resolver);
            });
        return *this;
    }

    ProxyDefinition& canBe(bool overridden) {
        definition_->canBeOverridden(overridden);
        return *this;
    }

  private:
    std::shared_ptr<ZFDefinition> definition_;
    std::shared_ptr<Container> publicContainer_;
    std::shared_ptr<Container> privateContainer_;
};

class ProxyRegistrationContainer {
  public:
    ProxyRegistrationContainer(std::shared_ptr<ZFRegistrationContainer> registrationContainer,
                               std::shared_ptr<Container> publicContainer,
                               std::shared_ptr<Container> privateContainer)
        : registrationContainer_(std::move(registrationContainer)),
          publicContainer_(std::move(publicContainer)),
          privateContainer_(std::move(privateContainer)) {}

    // Registers `factory` on the sibling side under the bridged key of T and `name`.
    template <class T, class F>
    requires detail::ClassObject<T> && std::invocable<F&, const ResolverType&> ProxyDefinition<T>
    register_(std::optional<std::string_view> name, F factory) {
        using Class = typename detail::ClassObjectTraits<T>::Class;
        std::optional<std::string> bridgedName;
        if (name) {
            bridgedName.emplace(*name);
        }
        auto definition = registrationContainer_->unsafeRegisterForKey(
            bridgedKey<Class>(), bridgedName,
            [factory = std::move(factory), publicContainer = publicContainer_,
             privateContainer =
                 privateContainer_](const std::shared_ptr<ZFResolver>& bridged) mutable {
                ProxyResolver resolver(bridged, publicContainer, privateContainer);
                return std::shared_ptr<Object>(factory(resolver));
            });
        return ProxyDefinition<T>(std::move(definition), publicContainer_, privateContainer_);
    }
    template <class T, class F>
    requires detail::ClassObject<T> && std::invocable<F&, const ResolverType&> ProxyDefinition<T>
    register_(F factory) {
        return register_<T>(std::nullopt, std::move(factory));
    }

  private:
    std::shared_ptr<ZFRegistrationContainer> registrationContainer_;
    std::shared_ptr<Container> publicContainer_;
    std::shared_ptr<Container> privateContainer_;
};

class KEL_EXPORT ProxyContainer {
  public:
    // Derives the private container from `publicContainer` and asks the registry for its callback
    // registration once for each surface that needs it.
    ProxyContainer(const std::shared_ptr<ZFContainerRegistry>& registry,
                   std::shared_ptr<Container> publicContainer);

    const std::shared_ptr<RegistrationContainer> public_;
    const std::shared_ptr<RegistrationContainer> private_;
    const std::shared_ptr<ProxyRegistrationContainer> objc;
    const std::shared_ptr<CallbackRegistration> callback;

  private:
    ProxyContainer(const std::shared_ptr<ZFContainerRegistry>& registry,
                   const std::shared_ptr<Container>& publicContainer,
                   const std::shared_ptr<Container>& privateContainer);
};

}  // namespace kel
