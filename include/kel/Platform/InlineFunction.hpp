// kel::InlineFunction<R(Args...), InlineSize> — a move-only, type-erased callable with inline
// storage.
//
// The one small-buffer callable of the library: work items (kel::Task) and promise handlers are
// instances of it. Unlike std::function it never copies what it captures and accepts move-only
// captures; callables of up to InlineSize bytes (and nothrow-movable) are stored inline, larger
// ones in one heap allocation.
//
// Thread rules: owned by one thread at a time; it may be moved to another thread.
#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace kel {

template <class Signature, std::size_t InlineSize>
class InlineFunction;

template <class R, class... Args, std::size_t InlineSize>
class InlineFunction<R(Args...), InlineSize> {
  public:
    InlineFunction() noexcept = default;
    InlineFunction(std::nullptr_t) noexcept {}

    template <class F>
    requires(!std::is_same_v<std::decay_t<F>, InlineFunction> &&
             std::is_invocable_r_v<R, std::decay_t<F>&, Args...>)
        InlineFunction(
            F&& f) {  // NOLINT(google-explicit-constructor): callables are passed as lambdas
        construct(std::forward<F>(f));
    }

    InlineFunction(InlineFunction&& other) noexcept { takeFrom(other); }

    InlineFunction& operator=(InlineFunction&& other) noexcept {
        if (this != &other) {
            reset();
            takeFrom(other);
        }
        return *this;
    }

    InlineFunction(const InlineFunction&) = delete;
    InlineFunction& operator=(const InlineFunction&) = delete;

    ~InlineFunction() { reset(); }

    // Replaces the held callable with f.
    template <class F>
    void emplace(F&& f) {
        reset();
        construct(std::forward<F>(f));
    }

    explicit operator bool() const noexcept { return ops_ != nullptr; }

    // Calls the callable. Calling an empty InlineFunction is a programming error.
    R operator()(Args... args) { return ops_->invoke(&storage_, std::forward<Args>(args)...); }

    void reset() noexcept {
        if (ops_ != nullptr) {
            ops_->destroy(&storage_);
            ops_ = nullptr;
        }
    }

  private:
    struct Ops {
        R (*invoke)(void*, Args&&...);
        void (*move)(void* to, void* from) noexcept;
        void (*destroy)(void*) noexcept;
    };

    template <class Fn>
    static constexpr bool fitsInline() {
        return sizeof(Fn) <= InlineSize && alignof(Fn) <= alignof(std::max_align_t) &&
               std::is_nothrow_move_constructible_v<Fn>;
    }

    template <class Fn>
    static constexpr Ops inlineOps{
        [](void* s, Args&&... args) -> R {
            return (*static_cast<Fn*>(s))(std::forward<Args>(args)...);
        },
        [](void* to, void* from) noexcept {
            ::new (to) Fn(std::move(*static_cast<Fn*>(from)));
            static_cast<Fn*>(from)->~Fn();
        },
        [](void* s) noexcept { static_cast<Fn*>(s)->~Fn(); },
    };

    template <class Fn>
    static constexpr Ops heapOps{
        [](void* s, Args&&... args) -> R {
            return (**static_cast<Fn**>(s))(std::forward<Args>(args)...);
        },
        [](void* to, void* from) noexcept { *static_cast<Fn**>(to) = *static_cast<Fn**>(from); },
        [](void* s) noexcept { delete *static_cast<Fn**>(s); },
    };

    template <class F>
    void construct(F&& f) {
        using Fn = std::decay_t<F>;
        if constexpr (fitsInline<Fn>()) {
            ::new (static_cast<void*>(&storage_)) Fn(std::forward<F>(f));
            ops_ = &inlineOps<Fn>;
        } else {
            *reinterpret_cast<Fn**>(&storage_) = new Fn(std::forward<F>(f));
            ops_ = &heapOps<Fn>;
        }
    }

    void takeFrom(InlineFunction& other) noexcept {
        ops_ = other.ops_;
        if (ops_ != nullptr) {
            ops_->move(&storage_, &other.storage_);
            other.ops_ = nullptr;
        }
    }

    alignas(std::max_align_t) unsigned char storage_[InlineSize];
    const Ops* ops_ = nullptr;
};

}  // namespace kel
