// kel::ProxyResolver — how client code resolves: the public container first, then the private
// one, then, for class types, the sibling framework's bridged resolver.
//
//     kel::ProxyResolver resolver(bridged, kel::Container::shared());
//     std::optional<std::shared_ptr<Greeter>> greeter =
//     resolver.resolve<std::shared_ptr<Greeter>>(); std::string why =
//     resolver.explain<std::shared_ptr<Greeter>>("formal");
//
// A resolution with an override block fills a fresh Context; a resolver that already carries a
// context adds its objects under the block's (the block's win) and shares its callback store.
// The bridged resolver is asked inside Exception::kf_tryCatch: an exception it raises is logged
// as "Failed to resolve from objc resolver, error=%{public}@" (level error) and gives an absent
// result; an answer of the wrong class gives an absent result silently.
//
// A ProxyResolver is a small value (four shared pointers): copies resolve alike. The bridged
// resolver may be null for an application without a sibling side.
//
// Thread rules: main-thread work, no lock; no state beyond its fields.
#pragma once

#include "kel/Container/Container.hpp"
#include "kel/Container/Context.hpp"
#include "kel/Container/Key.hpp"
#include "kel/Container/ResolverType.hpp"
#include "kel/Container/ZorbFoundation.hpp"
#include "kel/Export.hpp"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kel {

class KEL_EXPORT ProxyResolver final : public ResolverType {
  public:
    // A resolver over `publicResolver` and `privateResolver` (by default
    // publicResolver->privateContainer()), without a context.
    ProxyResolver(std::shared_ptr<ZFResolver> objcResolver,
                  std::shared_ptr<Container> publicResolver,
                  std::shared_ptr<Container> privateResolver = nullptr,
                  std::shared_ptr<Context> context = nullptr);

    const std::shared_ptr<ZFResolver>& objc() const noexcept { return objc_; }
    const std::shared_ptr<Container>& publicResolver() const noexcept { return publicResolver_; }
    const std::shared_ptr<Container>& privateResolver() const noexcept { return privateResolver_; }
    const std::shared_ptr<Context>& context() const noexcept { return context_; }

    std::shared_ptr<ResolverType> currentObjectGraphResolver(
        ZFObjectGraphTrait trait) const override;

    KEL_NO_EXPORT detail::AnyInstance resolveInstance(
        const Key& key, const runtime::ClassForm* classForm,
        const detail::ContextBlock* block) const override;

    // Describes, as text, where resolving T under `name` would look (public, private and, for
    // class types, bridged), the key it forms, and the registrations of T under other names or
    // in the other container. Resolves nothing, changes nothing and logs nothing.
    template <class T>
    std::string explain(std::optional<std::string_view> name = std::nullopt) const {
        return explainKey(toKey<T>(name), detail::classFormOf<T>());
    }

  private:
    // Asks the bridged side (which this resolver has) for `key`, as described above.
    KEL_NO_EXPORT detail::AnyInstance resolveBridged(const Key& key,
                                                     const runtime::ClassForm& classForm,
                                                     const std::shared_ptr<Context>& context) const;
    std::string explainKey(const Key& key, const runtime::ClassForm* classForm) const;

    std::shared_ptr<ZFResolver> objc_;
    std::shared_ptr<Container> publicResolver_;
    std::shared_ptr<Container> privateResolver_;
    std::shared_ptr<Context> context_;
};

// The resolver that code called from the sibling side uses: over `objcResolver`,
// Container::shared() and a new private container of it, without a context.
KEL_EXPORT ProxyResolver proxyResolver(std::shared_ptr<ZFResolver> objcResolver);

}  // namespace kel
