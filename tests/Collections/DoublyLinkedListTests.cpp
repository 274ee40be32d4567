#include "kel/Collections/DoublyLinkedList.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using List = kel::DoublyLinkedList<int>;
using NodePtr = List::NodePointer;

// The values walked forward from head; the walk backward from tail must give the same list.
std::vector<int> contents(const List& list) {
    std::vector<int> forward;
    std::vector<int> backward;
    for (auto node = list.head(); node; node = node->next) {
        forward.push_back(node->value);
    }
    for (auto node = list.tail(); node; node = node->previous.lock()) {
        backward.insert(backward.begin(), node->value);
    }
    EXPECT_EQ(forward, backward);
    return forward;
}

std::vector<NodePtr> appendNodes(List& list, int count) {
    std::vector<NodePtr> nodes;
    for (int value = 1; value <= count; ++value) {
        nodes.push_back(kel::Node<int>::make(value));
        list.append(nodes.back());
    }
    return nodes;
}

TEST(DoublyLinkedList, RemovesHeadMiddleTailAndTheOnlyNode) {
    const std::vector<std::pair<int, std::vector<int>>> cases{
        {0, {2, 3}}, {1, {1, 3}}, {2, {1, 2}}};
    for (const auto& [removed, expected] : cases) {
        List list;
        auto nodes = appendNodes(list, 3);
        list.remove(nodes[static_cast<std::size_t>(removed)]);
        EXPECT_EQ(contents(list), expected) << "removing node " << removed;
        EXPECT_TRUE(list.head()->previous.expired());
        EXPECT_EQ(list.tail()->next, nullptr);
        EXPECT_FALSE(nodes[static_cast<std::size_t>(removed)]->isLinked());
    }

    List list;
    auto only = appendNodes(list, 1);
    list.remove(only[0]);
    EXPECT_EQ(list.head(), nullptr);
    EXPECT_EQ(list.tail(), nullptr);
    list.prepend(only[0]);  // a removed node can be put back
    list.prepend(kel::Node<int>::make(0));
    EXPECT_EQ(contents(list), (std::vector<int>{0, 1}));
}

TEST(DoublyLinkedList, RemovingThroughTheListsOwnReferenceIsSafe) {
    List list;
    appendNodes(list, 3);  // the list is the only owner
    list.remove(list.head());
    list.remove(list.tail());
    EXPECT_EQ(contents(list), (std::vector<int>{2}));
    list.removeAll();
    EXPECT_EQ(list.head(), nullptr);
    EXPECT_EQ(list.tail(), nullptr);
}

TEST(DoublyLinkedListNodeLifetime, BackwardLinksNeverKeepNodesAlive) {
    std::vector<std::weak_ptr<kel::Node<int>>> watched;
    {
        List list;
        auto nodes = appendNodes(list, 3);
        watched.assign(nodes.begin(), nodes.end());
        list.remove(nodes[1]);
        nodes[1].reset();
        EXPECT_TRUE(watched[1].expired());
    }
    EXPECT_TRUE(watched[0].expired());
    EXPECT_TRUE(watched[2].expired());

    auto lone = kel::Node<int>::make(1);
    {
        auto before = kel::Node<int>::make(0);
        lone->previous = before;
        EXPECT_TRUE(lone->isLinked());
    }
    EXPECT_FALSE(lone->isLinked());  // its previous node died
}

TEST(DoublyLinkedListNodeLifetime, LongChainsAreFreedWithoutDeepRecursion) {
    constexpr int count = 1'000'000;
    std::weak_ptr<kel::Node<int>> last;
    {
        List list;
        for (int value = 0; value < count; ++value) {
            list.append(kel::Node<int>::make(value));
        }
        last = list.tail();
    }
    EXPECT_TRUE(last.expired());

    // A chain held only through a caller's first node goes the same way.
    auto head = kel::Node<int>::make(0);
    auto current = head;
    for (int value = 1; value < count; ++value) {
        current->next = kel::Node<int>::make(value);
        current = current->next;
    }
    last = current;
    current.reset();
    head.reset();
    EXPECT_TRUE(last.expired());
}

}  // namespace
