// kel::Resolution<T> — how a promise settled: with a value, with an error, or cancelled.
//
// The three cases, in this order: resolved (holds the value; a Void for T = void), rejected
// (holds the Error), cancelled (no payload). A Resolution is written once by the settling
// promise and then only read; handlers receive it by const reference.
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <utility>
#include <variant>

#include "kel/Platform/Error.hpp"
#include "kel/Platform/FatalError.hpp"
#include "kel/Promises/Void.hpp"

namespace kel {

template <class T>
class Resolution {
  public:
    using Value = ValueOrVoid<T>;

    static Resolution resolved(Value value) {
        return Resolution(std::in_place_index<0>, std::move(value));
    }
    static Resolution resolved() requires std::is_void_v<T> {
        return Resolution(std::in_place_index<0>, Void{});
    }
    static Resolution rejected(Error error) {
        return Resolution(std::in_place_index<1>, std::move(error));
    }
    static Resolution cancelled() { return Resolution(std::in_place_index<2>, Cancelled{}); }

    bool isResolved() const noexcept { return storage_.index() == 0; }
    bool isRejected() const noexcept { return storage_.index() == 1; }
    bool isCancelled() const noexcept { return storage_.index() == 2; }

    // The value of a resolved resolution; asking another case for it is a programming error.
    const Value& value() const& {
        KEL_PRECONDITION(isResolved(), "Resolution has no value");
        return std::get<0>(storage_);
    }
    // The value moved out of a resolution that is going away.
    Value&& value() && {
        KEL_PRECONDITION(isResolved(), "Resolution has no value");
        return std::get<0>(std::move(storage_));
    }
    // The error of a rejected resolution; asking another case for it is a programming error.
    const Error& error() const {
        KEL_PRECONDITION(isRejected(), "Resolution has no error");
        return std::get<1>(storage_);
    }

  private:
    struct Cancelled {};

    template <std::size_t I, class A>
    Resolution(std::in_place_index_t<I> index, A&& payload)
        : storage_(index, std::forward<A>(payload)) {}

    std::variant<Value, Error, Cancelled> storage_;
};

}  // namespace kel
