// kel::Stack — a last-in-first-out stack that is also a read-only random-access range.
//
// Position 0 is the bottom (the oldest element), the last position is the top. Iteration runs
// from the bottom to the top. pop() and peek() answer none on an empty stack; a position
// outside the stack (operator[], remove) is a programming error and stops the process.
// Iterators are those of std::vector: a push, pop or remove invalidates them, so code that
// changes the stack while walking it walks a copy.
//
// Value type: copies are independent. Thread rules: no locking; one thread at a time, or only
// const members concurrently.
#pragma once

#include "kel/Platform/FatalError.hpp"

#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

namespace kel {

template <class Element>
class Stack {
  public:
    using value_type = Element;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using const_reference = const Element&;
    using reference = const Element&;
    using const_iterator = typename std::vector<Element>::const_iterator;
    using iterator = const_iterator;

    Stack() = default;

    bool isEmpty() const noexcept { return elements_.empty(); }
    bool empty() const noexcept { return elements_.empty(); }
    std::size_t size() const noexcept { return elements_.size(); }

    void push(Element element) { elements_.push_back(std::move(element)); }

    // Removes and returns the top, or none when the stack is empty.
    std::optional<Element> pop() {
        if (elements_.empty()) {
            return std::nullopt;
        }
        std::optional<Element> top(std::move(elements_.back()));
        elements_.pop_back();
        return top;
    }

    // The top without removing it, or none when the stack is empty.
    std::optional<Element> peek() const {
        return elements_.empty() ? std::nullopt : std::optional<Element>(elements_.back());
    }

    // Removes and returns the element at a position counted from the bottom.
    Element remove(std::size_t position) {
        KEL_PRECONDITION(position < elements_.size(), "Stack: position out of range");
        auto at = elements_.begin() + static_cast<difference_type>(position);
        Element removed = std::move(*at);
        elements_.erase(at);
        return removed;
    }

    // The element at a position counted from the bottom.
    const Element& operator[](std::size_t position) const {
        KEL_PRECONDITION(position < elements_.size(), "Stack: position out of range");
        return elements_[position];
    }

    const_iterator begin() const noexcept { return elements_.begin(); }
    const_iterator end() const noexcept { return elements_.end(); }

    friend bool operator==(const Stack&, const Stack&) = default;

  private:
    std::vector<Element> elements_;  // bottom first
};

}  // namespace kel
