// kel::Identifiable, kel::identifierOf and kel::Diffable — what the identifier-keyed
// collections need from their elements.
//
// An element is identifiable when kel::identifierOf(element) yields its identifier as text.
// identifierOf looks, in this order, for:
//   - a member `identifier()` returning something convertible to std::string_view
//     (std::string, std::string_view, const char*), returned exactly as the member returns it
//     (a reference stays a reference, a computed string is returned by value);
//   - text itself (std::string, std::string_view, const char*): text is its own identifier;
//   - a pointer-like handle (std::shared_ptr, raw pointer, ...) to an object with a member
//     `identifier()`, so collections of shared model objects work; the handle must not be null.
//
// Diffable is an empty marker base: a type says it takes part in diffing by deriving from it.
// Nothing in the library depends on it.
//
// Thread rules: stateless; identifierOf may be called from any thread.
#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>

namespace kel {

namespace detail {

template <class T>
concept HasIdentifierMember = requires(const T& value) {
    { value.identifier() } -> std::convertible_to<std::string_view>;
};

template <class T>
concept IsText = std::convertible_to<const T&, std::string_view>;

template <class T>
concept PointsToIdentifiable = requires(const T& handle) {
    { (*handle).identifier() } -> std::convertible_to<std::string_view>;
};

struct IdentifierOfFunction {
    template <class T>
    requires HasIdentifierMember<T> || IsText<T> || PointsToIdentifiable<T>
    constexpr decltype(auto) operator()(const T& value) const {
        if constexpr (HasIdentifierMember<T>) {
            return value.identifier();
        } else if constexpr (IsText<T>) {
            return std::string_view(value);
        } else {
            return (*value).identifier();
        }
    }
};

// Hashes identifiers given as any text, so tables keyed by std::string can be searched with a
// std::string_view without building a string. Deliberately not noexcept: libstdc++ then keeps
// each node's hash code (as it does for std::hash<std::string>), so growing a table does not
// hash every identifier again.
struct IdentifierHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view identifier) const {
        return std::hash<std::string_view>{}(identifier);
    }
};

}  // namespace detail

// The identifier of an identifiable value (see above for how it is found).
inline constexpr detail::IdentifierOfFunction identifierOf{};

template <class T>
concept Identifiable = requires(const T& value) {
    { identifierOf(value) } -> std::convertible_to<std::string_view>;
};

// Marker base for types that take part in diffing; it has no operations.
struct Diffable {};

template <class T>
concept IsDiffable = std::derived_from<T, Diffable>;

}  // namespace kel
