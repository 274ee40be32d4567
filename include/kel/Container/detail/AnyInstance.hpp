// The opaque instance the container keeps in its pools and contexts, and the type tests on it.
// Private to the container's templates.
#pragma once

#include "kel/Container/Key.hpp"
#include "kel/Platform/Object.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace kel::detail {

template <class T>
struct IsSharedPointer : std::false_type {};
template <class U>
struct IsSharedPointer<std::shared_ptr<U>> : std::true_type {
    using Element = U;
};

template <class T>
struct ClassObjectTraits : std::false_type {};
template <class U>
struct ClassObjectTraits<std::shared_ptr<U>> : std::bool_constant<std::is_base_of_v<Object, U>> {
    using Class = U;
};

// True for std::shared_ptr<U> with U derived from kel::Object: the types that the class forms of
// resolution and the bridged side deal in.
template <class T>
concept ClassObject = ClassObjectTraits<T>::value;

// An instance of a type known only by its identity word. A shared pointer is kept as itself
// (no allocation); any other value is boxed in one shared allocation.
struct AnyInstance {
    std::uintptr_t type = 0;
    std::shared_ptr<void> storage;

    explicit operator bool() const noexcept { return type != 0; }

    template <class T>
    static AnyInstance make(T value) {
        if constexpr (IsSharedPointer<T>::value) {
            return AnyInstance{typeWord<T>(), std::shared_ptr<void>(std::move(value))};
        } else {
            return AnyInstance{typeWord<T>(), std::make_shared<T>(std::move(value))};
        }
    }

    template <class T>
    bool is() const noexcept {
        return type == typeWord<T>();
    }

    // The value as a T; the caller has checked is<T>().
    template <class T>
    T as() const {
        if constexpr (IsSharedPointer<T>::value) {
            return std::static_pointer_cast<typename T::element_type>(storage);
        } else {
            return *static_cast<const T*>(storage.get());
        }
    }

    // The value as a T, taking this instance's reference; the caller has checked is<T>().
    template <class T>
    T take() && {
        if constexpr (IsSharedPointer<T>::value) {
            return std::static_pointer_cast<typename T::element_type>(std::move(storage));
        } else {
            return as<T>();
        }
    }
};

// The name of the dynamic type of a value of type T: the most derived class for a non-null shared
// pointer to a polymorphic class, T itself otherwise.
template <class T>
std::string dynamicTypeName(const T& value) {
    if constexpr (IsSharedPointer<T>::value) {
        if constexpr (std::is_polymorphic_v<typename T::element_type>) {
            if (value) {
                return runtime::demangle(typeid(*value).name());
            }
        }
        return runtime::demangle(typeid(typename T::element_type).name());
    } else {
        return runtime::demangle(typeid(T).name());
    }
}

// The readable name of T; for a shared pointer, the name of the class it points to.
template <class T>
std::string staticTypeName() {
    if constexpr (IsSharedPointer<T>::value) {
        return runtime::demangle(typeid(typename T::element_type).name());
    } else {
        return runtime::demangle(typeid(T).name());
    }
}

}  // namespace kel::detail
