// kel::DeserializerType — turns response bytes into a value.
//
// A deserializer type D names its result type D::Response, is default-constructible, and has
// deserialize(bytes) returning a D::Response or throwing; what it throws travels unchanged to
// whoever asked (the network operation fails with it).
#pragma once

#include <concepts>
#include <cstdint>
#include <span>

namespace kel {

template <class D>
concept DeserializerType = std::default_initializable<D> &&
    requires(D& deserializer, std::span<const std::uint8_t> data) {
    typename D::Response;
    { deserializer.deserialize(data) } -> std::convertible_to<typename D::Response>;
};

}  // namespace kel
