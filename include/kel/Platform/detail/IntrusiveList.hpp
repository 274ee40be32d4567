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
#include <utility>

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

    void pushFront(T& element) noexcept { link(element, nullptr, head_); }
    void pushBack(T& element) noexcept { link(element, tail_, nullptr); }

    void erase(T& element) noexcept {
        Node& node = element;
        forwardLink(node.previous_) = node.next_;
        backwardLink(node.next_) = node.previous_;
        node.previous_ = nullptr;
        node.next_ = nullptr;
        --size_;
    }

    // Puts `replacement` where `element` is and takes `element` out.
    void replace(T& element, T& replacement) noexcept {
        Node& node = element;
        T* previous = std::exchange(node.previous_, nullptr);
        T* next = std::exchange(node.next_, nullptr);
        --size_;
        link(replacement, previous, next);
    }

    // Moves every element of `other`, in order, before this list's first.
    void prependAll(IntrusiveList& other) noexcept {
        if (other.empty()) {
            return;
        }
        nodeOf(other.tail_).next_ = head_;
        backwardLink(head_) = other.tail_;
        head_ = other.head_;
        size_ += other.size_;
        other.head_ = nullptr;
        other.tail_ = nullptr;
        other.size_ = 0;
    }

  private:
    using Node = IntrusiveListNode<T>;
    static Node& nodeOf(T* element) noexcept { return *element; }

    // The link pointing to whatever follows `previous`: its next, or head_ at the front.
    T*& forwardLink(T* previous) noexcept {
        return previous != nullptr ? nodeOf(previous).next_ : head_;
    }
    // The link pointing to whatever precedes `next`: its previous, or tail_ at the back.
    T*& backwardLink(T* next) noexcept { return next != nullptr ? nodeOf(next).previous_ : tail_; }

    // Links `element` between `previous` and `next` (either null at an end).
    void link(T& element, T* previous, T* next) noexcept {
        Node& node = element;
        node.previous_ = previous;
        node.next_ = next;
        forwardLink(previous) = &element;
        backwardLink(next) = &element;
        ++size_;
    }

    T* head_ = nullptr;
    T* tail_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace kel::detail
