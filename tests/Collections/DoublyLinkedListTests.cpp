#include "kel/Collections/DoublyLinkedList.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using List = kel::DoublyLinkedList<int>;
using NodePtr = List::NodePointer;

// The values walked forward from head and backward from tail; both must agree.
std::vector<int> forward(const List& list) {
    std::vector<int> values;
    for (auto node = list.head(); node; node = node->next) {
        values.push_back(node->value);
    }
    return values;
}

std::vector<int> backward(const List& list) {
    std::vector<int> values;
    for (auto node = list.tail(); node; node = node->previous.lock()) {
        values.insert(values.begin(), node->value);
    }
    return values;
}

struct Fixture {
    List list;
    std::vector<NodePtr> nodes;
    explicit Fixture(int count) {
        for (int value = 1; value <= count; ++value) {
            nodes.push_back(kel::Node<int>::make(value));
            list.append(nodes.back());
        }
    }
};

TEST(DoublyLinkedList, AppendAndPrependLinkBothWays) {
    List list;
    list.append(kel::Node<int>::make(2));
    list.append(kel::Node<int>::make(3));
    list.prepend(kel::Node<int>::make(1));
    EXPECT_EQ(forward(list), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(backward(list), (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(list.head()->previous.expired());
    EXPECT_EQ(list.tail()->next, nullptr);
}

TEST(DoublyLinkedList, RemovesHeadMiddleAndTail) {
    {
        Fixture f(3);
        f.list.remove(f.nodes[0]);
        EXPECT_EQ(forward(f.list), (std::vector<int>{2, 3}));
        EXPECT_EQ(backward(f.list), (std::vector<int>{2, 3}));
        EXPECT_TRUE(f.list.head()->previous.expired());
    }
    {
        Fixture f(3);
        f.list.remove(f.nodes[1]);
        EXPECT_EQ(forward(f.list), (std::vector<int>{1, 3}));
        EXPECT_EQ(backward(f.list), (std::vector<int>{1, 3}));
    }
    {
        Fixture f(3);
        f.list.remove(f.nodes[2]);
        EXPECT_EQ(f.list.tail(), f.nodes[1]);
        EXPECT_EQ(f.list.tail()->next, nullptr);
        EXPECT_EQ(backward(f.list), (std::vector<int>{1, 2}));
    }
    {
        Fixture f(3);
        for (const auto& node : f.nodes) {
            f.list.remove(node);
            EXPECT_FALSE(node->isLinked());
        }
        EXPECT_EQ(f.list.head(), nullptr);
        EXPECT_EQ(f.list.tail(), nullptr);
    }
}

TEST(DoublyLinkedList, RemovingTheOnlyNodeEmptiesTheList) {
    Fixture f(1);
    f.list.remove(f.nodes[0]);
    EXPECT_EQ(f.list.head(), nullptr);
    EXPECT_EQ(f.list.tail(), nullptr);
    EXPECT_FALSE(f.nodes[0]->isLinked());

    f.list.append(f.nodes[0]);  // the node can be used again
    EXPECT_EQ(forward(f.list), (std::vector<int>{1}));
}

TEST(DoublyLinkedList, RemovingTheHeadThroughTheListsOwnReferenceIsSafe) {
    Fixture f(2);
    f.nodes.clear();  // the list is now the only owner
    f.list.remove(f.list.head());
    EXPECT_EQ(forward(f.list), (std::vector<int>{2}));
    f.list.remove(f.list.tail());
    EXPECT_EQ(f.list.head(), nullptr);
}

TEST(DoublyLinkedListNodeLifetime, BackwardLinksDoNotKeepNodesAlive) {
    std::weak_ptr<kel::Node<int>> first;
    std::weak_ptr<kel::Node<int>> last;
    {
        Fixture f(3);
        first = f.nodes.front();
        last = f.nodes.back();
    }
    EXPECT_TRUE(first.expired());
    EXPECT_TRUE(last.expired());

    Fixture f(3);
    std::weak_ptr<kel::Node<int>> middle = f.nodes[1];
    f.list.remove(f.nodes[1]);
    f.nodes[1].reset();
    EXPECT_TRUE(middle.expired());
    EXPECT_FALSE(f.nodes[2]->previous.expired());  // now points at node 1

    std::vector<std::weak_ptr<kel::Node<int>>> watched(f.nodes.begin(), f.nodes.end());
    f.list.removeAll();
    f.nodes.clear();
    for (const auto& node : watched) {
        EXPECT_TRUE(node.expired());
    }
}

TEST(DoublyLinkedListNodeLifetime, NodeIsLinkedOnlyWhileItHasANextOrALivingPrevious) {
    auto node = kel::Node<int>::make(1);
    EXPECT_FALSE(node->isLinked());
    {
        auto before = kel::Node<int>::make(0);
        node->previous = before;
        EXPECT_TRUE(node->isLinked());
    }
    EXPECT_FALSE(node->isLinked());  // the previous node died
}

TEST(DoublyLinkedListNodeLifetime, LongListsAreFreedWithoutDeepRecursion) {
    constexpr int count = 1'000'000;
    std::weak_ptr<kel::Node<int>> middle;
    {
        List list;
        for (int value = 0; value < count; ++value) {
            list.append(kel::Node<int>::make(value));
            if (value == count / 2) {
                middle = list.tail();
            }
        }
    }
    EXPECT_TRUE(middle.expired());

    // A chain held only through a caller's first node goes the same way.
    auto head = kel::Node<int>::make(0);
    auto current = head;
    for (int value = 1; value < count; ++value) {
        current->next = kel::Node<int>::make(value);
        current->next->previous = current;
        current = current->next;
    }
    std::weak_ptr<kel::Node<int>> tail = current;
    current.reset();
    head.reset();
    EXPECT_TRUE(tail.expired());
}

}  // namespace
