// kel::detail::IntrusiveList — a doubly linked list threaded through its elements.
//
// An element derives from IntrusiveListNode<T> (T being the element type) and can be in at most
// one list at a time. The list never allocates and never owns its elements: the caller keeps
// them alive while they are linked. Every operation is constant time except prependAll, which is
// too. Used where links are made and broken under a lock on hot paths (the worker pool's idle
// workers, an operation queue's waiting and started work).
//
// Thread rules: not thread-safe; the owner's lock guards the list and its elements' links.
#pragma once

#include <cstddef>

namespace kel::detail {

template <class T>
class IntrusiveList;

template <class T>
class IntrusiveListNode {
  public:
    T* nextInList() const noexcept { return next_; }

  private:
    T* previous_ = nullptr;
    T* next_ = nullptr;

    friend class IntrusiveList<T>;
};

template <class T>
class IntrusiveList {
  public:
    IntrusiveList() = default;
    IntrusiveList(const IntrusiveList&) = delete;
    IntrusiveList& operator=(const IntrusiveList&) = delete;

    T* front() const noexcept { return head_; }
    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }

    void pushFront(T& element) noexcept {
        Node& node = element;
        node.previous_ = nullptr;
        node.next_ = head_;
        (head_ != nullptr ? nodeOf(head_).previous_ : tail_) = &element;
        head_ = &element;
        ++size_;
    }

    void pushBack(T& element) noexcept {
        Node& node = element;
        node.previous_ = tail_;
        node.next_ = nullptr;
        (tail_ != nullptr ? nodeOf(tail_).next_ : head_) = &element;
        tail_ = &element;
        ++size_;
    }

    void erase(T& element) noexcept {
        Node& node = element;
        (node.previous_ != nullptr ? nodeOf(node.previous_).next_ : head_) = node.next_;
        (node.next_ != nullptr ? nodeOf(node.next_).previous_ : tail_) = node.previous_;
        node.previous_ = nullptr;
        node.next_ = nullptr;
        --size_;
    }

    // Puts `replacement` where `element` is and takes `element` out.
    void replace(T& element, T& replacement) noexcept {
        Node& node = element;
        Node& other = replacement;
        other.previous_ = node.previous_;
        other.next_ = node.next_;
        (node.previous_ != nullptr ? nodeOf(node.previous_).next_ : head_) = &replacement;
        (node.next_ != nullptr ? nodeOf(node.next_).previous_ : tail_) = &replacement;
        node.previous_ = nullptr;
        node.next_ = nullptr;
    }

    // Moves every element of `other`, in order, before this list's first.
    void prependAll(IntrusiveList& other) noexcept {
        if (other.empty()) {
            return;
        }
        nodeOf(other.tail_).next_ = head_;
        (head_ != nullptr ? nodeOf(head_).previous_ : tail_) = other.tail_;
        head_ = other.head_;
        size_ += other.size_;
        other.head_ = nullptr;
        other.tail_ = nullptr;
        other.size_ = 0;
    }

  private:
    using Node = IntrusiveListNode<T>;
    static Node& nodeOf(T* element) noexcept { return *element; }

    T* head_ = nullptr;
    T* tail_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace kel::detail
