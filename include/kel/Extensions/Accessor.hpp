// kel::Accessor<T> — a value read afresh on every access.
//
// An Accessor wraps one callable, its accessorBlock; value() calls it each time, so a holder
// sees the current value (the network operation reads its endpoint through one, so a retry
// uses the endpoint as it is then). map(f) gives an Accessor<U> whose value is f applied to
// this accessor's value at each read.
//
// Thread rules: value() may be called from any thread when the block may; copies share nothing
// but what the block captures.
#pragma once

#include <functional>
#include <type_traits>
#include <utility>

namespace kel {

template <class T>
class Accessor {
  public:
    using Value = T;

    explicit Accessor(std::function<T()> accessorBlock)
        : accessorBlock_(std::move(accessorBlock)) {}

    T value() const { return accessorBlock_(); }

    const std::function<T()>& accessorBlock() const noexcept { return accessorBlock_; }

    template <class F, class U = std::invoke_result_t<F&, T>>
    Accessor<U> map(F transform) const {
        return Accessor<U>([block = accessorBlock_, transform = std::move(transform)]() mutable {
            return transform(block());
        });
    }

  private:
    std::function<T()> accessorBlock_;
};

}  // namespace kel
