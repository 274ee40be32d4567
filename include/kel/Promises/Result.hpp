// kel::Result<T> — the outcome of a callback-style operation: success with a value, or failed
// with an error.
//
// Result<T>::success(value) and Result<T>::failed(error); valueOrNil() gives the value or an
// empty optional. Result<void> holds a Void on success.
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <optional>
#include <utility>
#include <variant>

#include "kel/Platform/Error.hpp"
#include "kel/Platform/FatalError.hpp"
#include "kel/Promises/Void.hpp"

namespace kel {

template <class T>
class Result {
  public:
    using Value = ValueOrVoid<T>;

    static Result success(Value value) { return Result(std::in_place_index<0>, std::move(value)); }
    static Result success() requires std::is_void_v<T> {
        return Result(std::in_place_index<0>, Void{});
    }
    static Result failed(Error error) { return Result(std::in_place_index<1>, std::move(error)); }

    bool isSuccess() const noexcept { return storage_.index() == 0; }

    // The value of a success; asking a failure for it is a programming error.
    const Value& value() const& {
        KEL_PRECONDITION(isSuccess(), "Result is a failure");
        return std::get<0>(storage_);
    }
    Value&& value() && {
        KEL_PRECONDITION(isSuccess(), "Result is a failure");
        return std::get<0>(std::move(storage_));
    }
    // The error of a failure; asking a success for it is a programming error.
    const Error& error() const {
        KEL_PRECONDITION(!isSuccess(), "Result is a success");
        return std::get<1>(storage_);
    }

    std::optional<Value> valueOrNil() const& {
        return isSuccess() ? std::optional<Value>(std::get<0>(storage_)) : std::nullopt;
    }
    std::optional<Value> valueOrNil() && {
        return isSuccess() ? std::optional<Value>(std::get<0>(std::move(storage_))) : std::nullopt;
    }

  private:
    template <std::size_t I, class A>
    Result(std::in_place_index_t<I> index, A&& payload)
        : storage_(index, std::forward<A>(payload)) {}

    std::variant<Value, Error> storage_;
};

}  // namespace kel
