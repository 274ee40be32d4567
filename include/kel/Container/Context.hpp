// kel::ContextType and kel::Context — per-resolution overrides.
//
// A resolution made with an override block first fills a fresh context: objects it returns
// instead of building them, and callbacks fired only for resolutions made with it.
//
//     resolver.resolve<std::shared_ptr<Session>>([&](kel::ContextType& context) {
//         context.set<std::shared_ptr<Clock>>(fakeClock);            // unnamed Clock
//         context.set<std::string>("staging", "environmentName");     // a named value
//     });
//
// An object set for (T, name) is what resolving T under that name gives while the context is in
// use, at any depth of the graph built through the resolver carrying it.
//
// Thread rules: main-thread work, no lock. Ownership: shared; a resolver carrying a context keeps
// it alive.
#pragma once

#include "kel/Container/Callbacks.hpp"
#include "kel/Container/Key.hpp"
#include "kel/Container/ZorbFoundation.hpp"
#include "kel/Container/detail/AnyInstance.hpp"
#include "kel/Export.hpp"

#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace kel {

class Container;

class KEL_EXPORT ContextType : public CallbackRegistrationType {
  public:
    // Makes resolutions of T under `name` answer `value`.
    template <class T>
    void set(T value, std::optional<std::string_view> name = std::nullopt) {
        setObject(toKey<T>(name), detail::AnyInstance::make<T>(std::move(value)));
    }
    // The object set for T under `name`, if any.
    template <class T>
    std::optional<T> get(std::optional<std::string_view> name = std::nullopt) const {
        const detail::AnyInstance* found = object(toKey<T>(name));
        if (found != nullptr && found->is<T>()) {
            return found->as<T>();
        }
        return std::nullopt;
    }

    virtual std::shared_ptr<ZFContext> bridgedContext() const = 0;
    virtual void setBridgedContext(std::shared_ptr<ZFContext> context) = 0;

    virtual void setObject(Key key, detail::AnyInstance instance) = 0;
    virtual const detail::AnyInstance* object(const Key& key) const = 0;
};

class KEL_EXPORT Context final : public ContextType {
  public:
    Context(std::shared_ptr<CallbackStore> store, std::shared_ptr<Container> publicContainer,
            std::shared_ptr<Container> contextContainer)
        : callbackStore_(std::move(store)),
          publicContainer_(std::move(publicContainer)),
          contextContainer_(std::move(contextContainer)) {}

    const std::shared_ptr<CallbackStore>& sharedCallbackStore() const noexcept {
        return callbackStore_;
    }
    const std::unordered_map<Key, detail::AnyInstance>& objects() const noexcept {
        return objects_;
    }
    const std::shared_ptr<Container>& publicContainer() const noexcept { return publicContainer_; }

    // Adds the objects of `older` that this context does not override itself.
    void mergeObjects(const Context& older) {
        for (const auto& [key, instance] : older.objects_) {
            objects_.try_emplace(key, instance);
        }
    }

    std::shared_ptr<ZFContext> bridgedContext() const override { return bridgedContext_; }
    void setBridgedContext(std::shared_ptr<ZFContext> context) override {
        bridgedContext_ = std::move(context);
    }

    void setObject(Key key, detail::AnyInstance instance) override {
        objects_.insert_or_assign(std::move(key), std::move(instance));
    }
    const detail::AnyInstance* object(const Key& key) const override {
        if (objects_.empty()) {
            return nullptr;
        }
        auto found = objects_.find(key);
        return found == objects_.end() ? nullptr : &found->second;
    }

  protected:
    CallbackStore& callbackStore() override { return *callbackStore_; }
    std::shared_ptr<Container> callbackContainer() const override { return contextContainer_; }

  private:
    std::shared_ptr<CallbackStore> callbackStore_;
    std::unordered_map<Key, detail::AnyInstance> objects_;
    std::shared_ptr<Container> publicContainer_;
    std::shared_ptr<Container> contextContainer_;
    std::shared_ptr<ZFContext> bridgedContext_;
};

}  // namespace kel
