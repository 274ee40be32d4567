// kel::Node and kel::DoublyLinkedList — an intrusive doubly linked list of caller-owned nodes.
//
// Ownership: nodes are shared-owned (std::shared_ptr<Node<Value>>). Forward links (`next`)
// are strong, backward links (`previous`) are weak, so a list never forms a reference cycle:
// a node that no `next` link, no list end and no caller holds is freed. The list owns its
// nodes through `head`, the chain of `next` links and `tail`. Releasing a long chain frees it
// node by node in a loop, never by recursion, so lists of any length can be dropped.
//
// The list trusts its caller as a lightweight intrusive list does: append and prepend take
// unlinked nodes, and remove takes a node of this list (it is not searched for). Removing a
// node that is in no list any more (already removed, or never added) would corrupt the list,
// so it stops the process (KEL_PRECONDITION): such a node is not the head and has no living
// predecessor that links to it.
//
// Both types are reference types: non-copyable, shared-owned. Thread rules: no locking; one
// thread at a time for a list and its nodes.
#pragma once

#include "kel/Platform/FatalError.hpp"

#include <memory>
#include <utility>

namespace kel {

template <class Value>
class Node {
  public:
    explicit Node(Value nodeValue) : value(std::move(nodeValue)) {}

    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    // Unlinks the chain that follows this node iteratively: each following node that is held
    // by nothing else has its own `next` taken from it before it is freed.
    ~Node() {
        std::shared_ptr<Node> following = std::move(next);
        while (following && following.use_count() == 1) {
            following = std::move(following->next);
        }
    }

    static std::shared_ptr<Node> make(Value nodeValue) {
        return std::make_shared<Node>(std::move(nodeValue));
    }

    // True when the node has a following node or a living preceding node.
    bool isLinked() const noexcept { return next != nullptr || !previous.expired(); }

    Value value;                   // the payload
    std::shared_ptr<Node> next;    // the following node (strong)
    std::weak_ptr<Node> previous;  // the preceding node (weak; never keeps it alive)
};

template <class Value>
class DoublyLinkedList {
  public:
    using NodePointer = std::shared_ptr<Node<Value>>;

    DoublyLinkedList() = default;
    DoublyLinkedList(const DoublyLinkedList&) = delete;
    DoublyLinkedList& operator=(const DoublyLinkedList&) = delete;

    const NodePointer& head() const noexcept { return head_; }
    const NodePointer& tail() const noexcept { return tail_; }

    // Puts the node first. Into an empty list the node goes as it is, links untouched.
    void prepend(const NodePointer& node) {
        if (!head_) {
            head_ = node;
            tail_ = node;
            return;
        }
        head_->previous = node;
        node->next = head_;
        node->previous.reset();
        head_ = node;
    }

    // Puts the node last. The node's own `next` is not cleared: append unlinked nodes only.
    void append(const NodePointer& node) {
        if (!head_) {
            head_ = node;
            tail_ = node;
            return;
        }
        node->previous = tail_;
        tail_->next = node;
        tail_ = node;
    }

    // Unlinks a node of this list; afterwards the node has no links.
    void remove(const NodePointer& node) {
        // Keeps the node alive while it is unlinked, even when `node` refers to head_ or to a
        // neighbour's link.
        const NodePointer removed = node;
        const NodePointer before = removed->previous.lock();
        KEL_PRECONDITION(removed == head_ || (before && before->next == removed),
                         "DoublyLinkedList: removing a node that is not in the list");
        if (removed == head_) {
            head_ = removed->next;
            if (head_) {
                head_->previous.reset();
            } else {
                tail_.reset();
            }
        } else if (removed->next) {
            if (before) {
                before->next = removed->next;
            }
            removed->next->previous = removed->previous;
        } else {
            if (before) {
                before->next.reset();
            }
            tail_ = before;
        }
        removed->previous.reset();
        removed->next.reset();
    }

    // Removes the head until the list is empty.
    void removeAll() {
        while (head_) {
            remove(head_);
        }
    }

  private:
    NodePointer head_;  // first node, or null
    NodePointer tail_;  // last node, or null
};

}  // namespace kel
