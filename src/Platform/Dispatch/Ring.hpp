// kel::detail::Ring — a growable FIFO ring buffer, the queue under every dispatch queue.
//
// Capacity is a power of two and never shrinks, so a queue in steady use stops allocating.
// Elements are constructed in place on push and destroyed on pop; growth moves them, oldest
// first, to the start of a buffer twice the size.
//
// Thread rules: not thread-safe; the owner's lock guards it.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace kel::detail {

template <class T>
class Ring {
  public:
    static constexpr std::size_t initialCapacity = 16;

    Ring() = default;
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;
    ~Ring() {
        while (size_ != 0) {
            pop();
        }
        release(data_);
    }

    bool empty() const noexcept { return size_ == 0; }
    std::size_t size() const noexcept { return size_; }
    std::size_t capacity() const noexcept { return capacity_; }

    void push(T&& value) {
        if (size_ == capacity_) {
            grow();
        }
        ::new (static_cast<void*>(data_ + ((head_ + size_) & (capacity_ - 1)))) T(std::move(value));
        ++size_;
    }

    T& front() noexcept { return data_[head_]; }

    T pop() noexcept {
        T* slot = data_ + head_;
        T value(std::move(*slot));
        slot->~T();
        head_ = (head_ + 1) & (capacity_ - 1);
        --size_;
        return value;
    }

  private:
    static T* allocate(std::size_t n) {
        return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t(alignof(T))));
    }
    static void release(T* p) noexcept {
        if (p != nullptr) {
            ::operator delete(p, std::align_val_t(alignof(T)));
        }
    }
    void grow() {
        std::size_t capacity = capacity_ == 0 ? initialCapacity : capacity_ * 2;
        T* data = allocate(capacity);
        for (std::size_t i = 0; i < size_; ++i) {
            T* from = data_ + ((head_ + i) & (capacity_ - 1));
            ::new (static_cast<void*>(data + i)) T(std::move(*from));
            from->~T();
        }
        release(data_);
        data_ = data;
        capacity_ = capacity;
        head_ = 0;
    }

    T* data_ = nullptr;
    std::size_t capacity_ = 0;
    std::size_t head_ = 0;
    std::size_t size_ = 0;
};

}  // namespace kel::detail
