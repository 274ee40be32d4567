// kel::Void — the value of a promise or result that carries no value.
//
// Promise<void> and Result<void> store a Void where a value would be; lists and tuples of the
// joins hold Voids for no-value inputs. ValueOrVoid<T> is T, or Void for T = void.
//
// Thread rules: an empty value type; copies may travel anywhere.
#pragma once

#include <type_traits>

namespace kel {

struct Void {
    friend constexpr bool operator==(Void, Void) noexcept { return true; }
};

template <class T>
using ValueOrVoid = std::conditional_t<std::is_void_v<T>, Void, T>;

}  // namespace kel
