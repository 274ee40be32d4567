// kel::Task — a move-only, type-erased callable taking nothing and returning nothing.
//
// Work submitted to queues, timers and run loops is a Task. Unlike std::function it never
// copies what it captures and accepts move-only captures; callables up to three pointers in
// size are stored inline, so submitting a small lambda does not allocate for the wrapper.
//
// Thread rules: a Task is owned by one thread at a time; it may be moved to another thread.
#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace kel {

class Task {
  public:
    Task() noexcept = default;
    Task(std::nullptr_t) noexcept {}

    template <class F>
    requires(!std::is_same_v<std::decay_t<F>, Task> && std::is_invocable_v<std::decay_t<F>&>)
        Task(F&& f) {  // NOLINT(google-explicit-constructor): work is passed as a lambda
        using Fn = std::decay_t<F>;
        if constexpr (fitsInline<Fn>()) {
            ::new (static_cast<void*>(&storage_)) Fn(std::forward<F>(f));
            ops_ = &inlineOps<Fn>;
        } else {
            *reinterpret_cast<Fn**>(&storage_) = new Fn(std::forward<F>(f));
            ops_ = &heapOps<Fn>;
        }
    }

    Task(Task&& other) noexcept : ops_(other.ops_) {
        if (ops_ != nullptr) {
            ops_->move(&storage_, &other.storage_);
            other.ops_ = nullptr;
        }
    }

    Task& operator=(Task&& other) noexcept {
        if (this != &other) {
            reset();
            ops_ = other.ops_;
            if (ops_ != nullptr) {
                ops_->move(&storage_, &other.storage_);
                other.ops_ = nullptr;
            }
        }
        return *this;
    }

    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    ~Task() { reset(); }

    explicit operator bool() const noexcept { return ops_ != nullptr; }

    // Calls the callable. Calling an empty Task is a programming error.
    void operator()() { ops_->invoke(&storage_); }

    void reset() noexcept {
        if (ops_ != nullptr) {
            ops_->destroy(&storage_);
            ops_ = nullptr;
        }
    }

  private:
    static constexpr std::size_t inlineSize = 3 * sizeof(void*);
    using Storage = std::aligned_storage_t<inlineSize, alignof(std::max_align_t)>;

    struct Ops {
        void (*invoke)(void*);
        void (*move)(void* to, void* from) noexcept;
        void (*destroy)(void*) noexcept;
    };

    template <class Fn>
    static constexpr bool fitsInline() {
        return sizeof(Fn) <= inlineSize && alignof(Fn) <= alignof(std::max_align_t) &&
               std::is_nothrow_move_constructible_v<Fn>;
    }

    template <class Fn>
    static constexpr Ops inlineOps{
        [](void* s) { (*static_cast<Fn*>(s))(); },
        [](void* to, void* from) noexcept {
            ::new (to) Fn(std::move(*static_cast<Fn*>(from)));
            static_cast<Fn*>(from)->~Fn();
        },
        [](void* s) noexcept { static_cast<Fn*>(s)->~Fn(); },
    };

    template <class Fn>
    static constexpr Ops heapOps{
        [](void* s) { (**static_cast<Fn**>(s))(); },
        [](void* to, void* from) noexcept { *static_cast<Fn**>(to) = *static_cast<Fn**>(from); },
        [](void* s) noexcept { delete *static_cast<Fn**>(s); },
    };

    Storage storage_;
    const Ops* ops_ = nullptr;
};

}  // namespace kel
