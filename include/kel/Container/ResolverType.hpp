// kel::ResolverType — the interface through which factories, configurations, callbacks and client
// code resolve objects. Its implementation is ProxyResolver.
//
//     auto service = resolver.resolve<std::shared_ptr<Service>>();          // unnamed
//     auto named   = resolver.resolve<std::shared_ptr<Service>>("primary"); // by name
//     auto withOverride = resolver.resolve<std::shared_ptr<Service>>([&](kel::ContextType& c) {
//         c.set<std::shared_ptr<Clock>>(fakeClock);
//     });
//
// Every form answers std::optional<T>: a missing registration is an absent result, never an
// error. For T = std::shared_ptr<U> with U derived from kel::Object, resolve() is the class form:
// when neither container has the key it falls back to the sibling framework's bridged resolver.
// resolveGeneral() never asks the bridged side.
//
// Thread rules: resolution is main-thread work and takes no locks.
#pragma once

#include "kel/Container/Key.hpp"
#include "kel/Container/ZorbFoundation.hpp"
#include "kel/Container/detail/AnyInstance.hpp"
#include "kel/Container/detail/FunctionRef.hpp"
#include "kel/Export.hpp"

#include <concepts>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kel {

class ContextType;

// The text key under which the sibling side knows a class type: its readable qualified name
// ("app::Greeter"). C++ has no separate protocol namespace, so an abstract interface and a
// concrete class are named the same way.
template <class U>
const std::string& bridgedKey() {
    static const std::string key = runtime::demangle(typeid(U).name());
    return key;
}

namespace runtime {

// What the class form of resolution needs to know about T to ask the bridged side: its text
// key and the test "is this object a T". Made by the templates below in the user's code and
// read by the library, so it is part of the library's runtime interface.
struct ClassForm {
    const std::string& (*bridgedKey)();
    detail::AnyInstance (*fromObject)(const std::shared_ptr<Object>& object);
};

}  // namespace runtime

namespace detail {

template <class T>
const runtime::ClassForm* classFormOf() {
    if constexpr (ClassObject<T>) {
        using U = typename ClassObjectTraits<T>::Class;
        static constexpr runtime::ClassForm form{
            &kel::bridgedKey<U>, [](const std::shared_ptr<Object>& object) -> AnyInstance {
                if (auto typed = std::dynamic_pointer_cast<U>(object)) {
                    return AnyInstance::make<T>(std::move(typed));
                }
                return {};
            }};
        return &form;
    } else {
        return nullptr;
    }
}

using ContextBlock = FunctionRef<void(ContextType&)>;

}  // namespace detail

class KEL_EXPORT ResolverType {
  public:
    virtual ~ResolverType() = default;

    template <class T>
    std::optional<T> resolve(std::optional<std::string_view> name = std::nullopt) const {
        return typed<T>(resolveInstance(toKey<T>(name), detail::classFormOf<T>(), nullptr));
    }
    template <class T, class Block>
    requires std::invocable<Block&, ContextType&> std::optional<T> resolve(Block&& block)
    const { return resolve<T>(std::nullopt, block); }
    template <class T, class Block>
    requires std::invocable<Block&, ContextType&> std::optional<T> resolve(
        std::optional<std::string_view> name, Block&& block)
    const {
        detail::ContextBlock ref(block);
        return typed<T>(resolveInstance(toKey<T>(name), detail::classFormOf<T>(), &ref));
    }

    // The general forms: public then private container, never the bridged side.
    template <class T>
    std::optional<T> resolveGeneral(std::optional<std::string_view> name = std::nullopt) const {
        return typed<T>(resolveInstance(toKey<T>(name), nullptr, nullptr));
    }
    template <class T, class Block>
    requires std::invocable<Block&, ContextType&> std::optional<T> resolveGeneral(
        std::optional<std::string_view> name, Block&& block)
    const {
        detail::ContextBlock ref(block);
        return typed<T>(resolveInstance(toKey<T>(name), nullptr, &ref));
    }

    // A resolver whose resolutions join the object graph being built (see ZFObjectGraphTrait).
    virtual std::shared_ptr<ResolverType> currentObjectGraphResolver(
        ZFObjectGraphTrait trait) const = 0;

    // The type-erased resolution behind the templates: `classForm` is null for the general
    // forms, `block` null when there is no override block.
    virtual detail::AnyInstance resolveInstance(const Key& key, const runtime::ClassForm* classForm,
                                                const detail::ContextBlock* block) const = 0;

  private:
    template <class T>
    static std::optional<T> typed(detail::AnyInstance instance) {
        if (instance.is<T>()) {
            return std::move(instance).template take<T>();
        }
        return std::nullopt;
    }
};

}  // namespace kel
