// Instance callbacks: "every time a U is resolved, tell me".
//
// A definition asks for them with Definition<T>::whenResolving; code outside definitions (a
// module's `callback` surface, a context's override block, the sibling side) registers them
// through a CallbackRegistrationType. They are kept in a CallbackStore, shared by every container
// derived from the same root, and fired by the configuration step of a resolution: the callbacks
// for an unnamed U first, then those for U under the resolved name, each in registration order.
//
//     definition->whenResolving<std::shared_ptr<Plugin>>(kel::CallbackScope::any(),
//         [](std::shared_ptr<Host> host, std::shared_ptr<Plugin> plugin, const kel::ResolverType&)
//         {
//             host->attach(plugin);
//         });
//
// The registering instance is held weakly: once it is gone its callbacks do nothing.
//
// Thread rules: main-thread work; the store takes no lock.
// Ownership: the store owns its callback definitions; a callback definition holds its container
// weakly (the store is itself owned by the containers, so a strong reference would keep them
// alive forever).
#pragma once

#include "kel/Container/Key.hpp"
#include "kel/Container/ResolverType.hpp"
#include "kel/Container/ZorbFoundation.hpp"
#include "kel/Container/detail/AnyInstance.hpp"
#include "kel/Export.hpp"

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kel {

class Container;

// Which resolutions of U a callback is for.
class CallbackScope {
  public:
    enum class Kind { name, names, any };

    // Resolutions of U under exactly this name.
    static CallbackScope name(std::string name) {
        return CallbackScope(Kind::name, {std::move(name)});
    }
    // Resolutions of U under any of these names.
    static CallbackScope names(std::vector<std::string> names) {
        return CallbackScope(Kind::names, std::move(names));
    }
    // Resolutions of U without a name.
    static CallbackScope any() { return CallbackScope(Kind::any, {}); }

    Kind kind() const noexcept { return kind_; }
    const std::vector<std::string>& nameList() const noexcept { return names_; }

    friend bool operator==(const CallbackScope&, const CallbackScope&) = default;

  private:
    CallbackScope(Kind kind, std::vector<std::string> names)
        : kind_(kind), names_(std::move(names)) {}

    Kind kind_;
    std::vector<std::string> names_;
};

// A stored callback, fired with a resolved instance and a resolver.
class KEL_EXPORT CallbackDefinitionType {
  public:
    virtual ~CallbackDefinitionType() = default;
    virtual void fire(const detail::AnyInstance& instance, const ResolverType& resolver) = 0;
    // The container whose resolver the callback receives; null once it is gone.
    virtual std::shared_ptr<Container> privateContainer() const = 0;
};

template <class T>
class CallbackDefinition final : public CallbackDefinitionType {
  public:
    using Callback = std::function<void(T, const ResolverType&)>;

    CallbackDefinition(Callback callback, std::weak_ptr<Container> privateContainer)
        : callback_(std::move(callback)), privateContainer_(std::move(privateContainer)) {}

    void fire(const detail::AnyInstance& instance, const ResolverType& resolver) override {
        if (instance.is<T>()) {
            callback_(instance.as<T>(), resolver);
        }
    }
    std::shared_ptr<Container> privateContainer() const override {
        return privateContainer_.lock();
    }

  private:
    Callback callback_;
    std::weak_ptr<Container> privateContainer_;
};

// The callbacks, by the key of the type (and name) whose resolutions fire them.
class KEL_EXPORT CallbackStore {
  public:
    using List = std::vector<std::shared_ptr<CallbackDefinitionType>>;

    // Appends under (U, n) for name(n), under (U, each name) for names, under (U, none) for any.
    void add(std::uintptr_t type, const CallbackScope& scope,
             std::shared_ptr<CallbackDefinitionType> definition);
    template <class U>
    void add(const CallbackScope& scope, std::shared_ptr<CallbackDefinitionType> definition) {
        add(detail::typeWord<U>(), scope, std::move(definition));
    }

    // The callbacks for an unnamed U followed, when a name is given, by those for U under it.
    List lookup(std::uintptr_t type, const std::optional<std::string>& name) const;

    bool isEmpty() const noexcept { return store_.empty(); }

  private:
    std::unordered_map<Key, List> store_;
};

// A surface through which callbacks are registered outside definitions. The owner is held
// weakly; the callback receives it, the resolved U and a resolver.
class KEL_EXPORT CallbackRegistrationType {
  public:
    virtual ~CallbackRegistrationType() = default;

    template <class U, class Owner, class F>
    requires std::invocable < F&, std::shared_ptr<Owner>, U,
    const ResolverType& > void whenResolving(const CallbackScope& scope,
                                             const std::shared_ptr<Owner>& owner, F callback) {
        std::weak_ptr<Owner> weakOwner = owner;
        auto wrapped = [weakOwner, callback = std::move(callback)](
                           U resolved, const ResolverType& resolver) mutable {
            if (auto alive = weakOwner.lock()) {
                callback(std::move(alive), std::move(resolved), resolver);
            }
        };
        callbackStore().add<U>(scope, std::make_shared<CallbackDefinition<U>>(std::move(wrapped),
                                                                              callbackContainer()));
    }

  protected:
    virtual CallbackStore& callbackStore() = 0;
    virtual std::shared_ptr<Container> callbackContainer() const = 0;
};

// The surface handed to a module (ProxyContainer::callback) and to the sibling side.
class KEL_EXPORT CallbackRegistration final : public CallbackRegistrationType {
  public:
    CallbackRegistration(std::shared_ptr<CallbackStore> callbackStore,
                         std::shared_ptr<ZFCallbackRegistration> callbackRegistration,
                         std::shared_ptr<Container> publicContainer,
                         std::shared_ptr<Container> privateContainer)
        : callbackStore_(std::move(callbackStore)),
          callbackRegistration_(std::move(callbackRegistration)),
          publicContainer_(std::move(publicContainer)),
          privateContainer_(std::move(privateContainer)) {}

    const std::shared_ptr<ZFCallbackRegistration>& bridgedRegistration() const noexcept {
        return callbackRegistration_;
    }
    const std::shared_ptr<Container>& publicContainer() const noexcept { return publicContainer_; }
    const std::shared_ptr<Container>& privateContainer() const noexcept {
        return privateContainer_;
    }

  protected:
    CallbackStore& callbackStore() override { return *callbackStore_; }
    std::shared_ptr<Container> callbackContainer() const override { return privateContainer_; }

  private:
    std::shared_ptr<CallbackStore> callbackStore_;
    std::shared_ptr<ZFCallbackRegistration> callbackRegistration_;
    std::shared_ptr<Container> publicContainer_;
    std::shared_ptr<Container> privateContainer_;
};

// A definition's request for callbacks, turned into stored callbacks for each instance it builds.
class KEL_EXPORT CallbackInstanceDefinitionType {
  public:
    virtual ~CallbackInstanceDefinitionType() = default;
    // `object` is the instance as a class object, null when the registered type is not one.
    virtual void registerInstance(const std::shared_ptr<CallbackStore>& store,
                                  const detail::AnyInstance& instance,
                                  const std::shared_ptr<Object>& object,
                                  const std::shared_ptr<Container>& privateContainer) = 0;
};

// whenResolving(U, scope, castAs: V, callback) of a Definition<T>, T a shared pointer to a class.
template <class T, class U, class V>
class CallbackInstanceDefinition final : public CallbackInstanceDefinitionType {
    static_assert(detail::IsSharedPointer<T>::value,
                  "callbacks hold their registering instance weakly");
    using Element = typename detail::IsSharedPointer<T>::Element;

  public:
    using Wrapper = std::function<void(std::shared_ptr<V>, U, const ResolverType&)>;

    CallbackInstanceDefinition(Wrapper wrapper, CallbackScope scope)
        : wrapper_(std::move(wrapper)), scope_(std::move(scope)) {}

    void registerInstance(const std::shared_ptr<CallbackStore>& store,
                          const detail::AnyInstance& instance, const std::shared_ptr<Object>&,
                          const std::shared_ptr<Container>& privateContainer) override {
        if (!instance.is<T>()) {
            return;
        }
        std::shared_ptr<V> registering;
        if constexpr (std::is_convertible_v<Element*, V*>) {
            registering = instance.as<T>();
        } else if constexpr (std::is_polymorphic_v<Element>) {
            registering = std::dynamic_pointer_cast<V>(instance.as<T>());
        }
        if (!registering) {
            return;
        }
        std::weak_ptr<V> weakRegistering = registering;
        auto callback = [weakRegistering, wrapper = wrapper_](U resolved,
                                                              const ResolverType& resolver) {
            if (auto alive = weakRegistering.lock()) {
                wrapper(std::move(alive), std::move(resolved), resolver);
            }
        };
        store->add<U>(
            scope_, std::make_shared<CallbackDefinition<U>>(std::move(callback), privateContainer));
    }

  private:
    Wrapper wrapper_;
    CallbackScope scope_;
};

// A request whose callbacks come from the sibling side: for each built class instance, the
// bridged callback registration is handed the instance and a CallbackRegistration through
// which it registers what it wants to be told about.
class KEL_EXPORT CallbackInstanceBridgedDefinition final : public CallbackInstanceDefinitionType {
  public:
    CallbackInstanceBridgedDefinition(std::weak_ptr<Container> publicContainer,
                                      std::shared_ptr<ZFCallbackRegistration> callbackRegistration)
        : publicContainer_(std::move(publicContainer)),
          callbackRegistration_(std::move(callbackRegistration)) {}

    KEL_NO_EXPORT void registerInstance(
        const std::shared_ptr<CallbackStore>& store, const detail::AnyInstance& instance,
        const std::shared_ptr<Object>& object,
        const std::shared_ptr<Container>& privateContainer) override;

  private:
    std::weak_ptr<Container> publicContainer_;
    std::shared_ptr<ZFCallbackRegistration> callbackRegistration_;
};

}  // namespace kel
