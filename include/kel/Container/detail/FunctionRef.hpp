// A non-owning reference to a callable, for callables that are only called during the call
// that receives them (override blocks of a resolution). Private to the container's templates.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace kel::detail {

template <class Signature>
class FunctionRef;

template <class R, class... Args>
class FunctionRef<R(Args...)> {
  public:
    template <class F>
    requires(!std::is_same_v<std::decay_t<F>, FunctionRef> && std::is_invocable_r_v<R, F&, Args...>)
        FunctionRef(F& f)
    noexcept  // NOLINT(google-explicit-constructor)
        : object_(std::addressof(f)), call_([](void* object, Args... args) -> R {
              return (*static_cast<F*>(object))(std::forward<Args>(args)...);
          }) {}

    R operator()(Args... args) const { return call_(object_, std::forward<Args>(args)...); }

  private:
    void* object_;
    R (*call_)(void*, Args...);
};

}  // namespace kel::detail
