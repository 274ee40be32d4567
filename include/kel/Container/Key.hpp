// kel::Key, kel::toKey and kel::Scope — how the container names a registration and how long
// the instances it builds live.
//
// A Key is a type's identity word plus an optional registration name. The identity word is the
// address of the type's mangled name interned in a table owned by the library, so it is the same
// word in every shared object of the process: a type registered by the application and resolved
// inside a plugin loaded with dlopen finds its registration. A type with a name and the same type
// without one are different keys.
//
// Thread rules: Key and Scope are values. The interning table is guarded by its own mutex and is
// touched only the first time a shared object asks for a type's word (the word is then cached in
// a function-local static), so forming keys on the resolution path takes no lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <typeinfo>

#include "kel/Export.hpp"

namespace kel {

namespace runtime {

// Interns a mangled type name in the library's process-wide table and returns the interned copy;
// equal names give the same pointer wherever the call comes from.
KEL_EXPORT const char* internTypeName(const char* mangledName);

// The readable form of a mangled type name ("app::Service" for "N3app7ServiceE").
KEL_EXPORT std::string demangle(const char* mangledName);

}  // namespace runtime

namespace detail {

// The identity word of T (top-level cv-qualifiers ignored, as typeid does). Always inlined:
// once the word is cached it is a guard test and a load, and every resolution asks for it.
template <class T>
[[gnu::always_inline]] inline std::uintptr_t typeWord() noexcept {
    static const std::uintptr_t word =
        reinterpret_cast<std::uintptr_t>(runtime::internTypeName(typeid(T).name()));
    return word;
}

}  // namespace detail

struct KEL_EXPORT Key {
    // The identity word of the registered type.
    std::uintptr_t addr = 0;
    // The registration name; absent for an unnamed registration.
    std::optional<std::string> namespace_;

    // The readable name of the type, followed by `(name: "...")` for a named key.
    std::string description() const;

    friend bool operator==(const Key&, const Key&) = default;
};

// The key of type T under an optional name. Every registration and every lookup forms its key
// this way.
template <class T>
Key toKey(std::optional<std::string_view> name = std::nullopt) {
    Key key{detail::typeWord<T>(), std::nullopt};
    if (name) {
        key.namespace_.emplace(*name);
    }
    return key;
}

// How long an instance built from a definition lives.
enum class Scope : int {
    none = 0,       // every resolution calls the factory again
    graph = 1,      // one instance per outermost resolution and everything it resolves
    singleton = 2,  // one instance for the life of the container's singleton pool
};

}  // namespace kel

template <>
struct std::hash<kel::Key> {
    std::size_t operator()(const kel::Key& key) const noexcept {
        const std::size_t addrHash = std::hash<std::uintptr_t>{}(key.addr);
        if (!key.namespace_) {
            return addrHash;
        }
        return addrHash ^ std::hash<std::string>{}(*key.namespace_);
    }
};
