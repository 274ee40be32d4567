#include "kel/Collections/DoublyLinkedList.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using List = kel::DoublyLinkedList<int>;

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

std::vector<List::NodePointer> appendNodes(List& list, int count) {
    std::vector<List::NodePointer> nodes;
    for (int value = 1; value <= count; ++value) {
        nodes.push_back(kel::Node<int>::make(value));
        list.append(nodes.back());
    }
    return nodes;
}

TEST(DoublyLinkedList, RemovesHeadMiddleTailAndTheOnlyNode) {
    const std::vector<std::vector<int>> remaining{{2, 3}, {1, 3}, {1, 2}};
    for (std::size_t removed = 0; removed < remaining.size(); ++removed) {
        List list;
        auto nodes = appendNodes(list, 3);
        list.remove(nodes[removed]);
        EXPECT_EQ(contents(list), remaining[removed]) << "removing node " << removed;
        EXPECT_FALSE(nodes[removed]->isLinked());
    }

    // Removing through the list's own references, with the list as the only owner.
    List list;
    appendNodes(list, 3);
    list.remove(list.head());
    list.remove(list.tail());
    EXPECT_EQ(contents(list), (std::vector<int>{2}));
    list.remove(list.head());
    EXPECT_EQ(list.head(), nullptr);
    EXPECT_EQ(list.tail(), nullptr);

    list.prepend(kel::Node<int>::make(1));
    list.prepend(kel::Node<int>::make(0));
    EXPECT_EQ(contents(list), (std::vector<int>{0, 1}));
}

// Unlinking a node twice, or one never added, would rewire the list around a stale neighbour.
TEST(DoublyLinkedListDeathTest, RemovingANodeThatIsNotInTheListStopsTheProcess) {
    List list;
    auto nodes = appendNodes(list, 3);
    list.remove(nodes[1]);
    EXPECT_DEATH(list.remove(nodes[1]), "removing a node that is not in the list");
    EXPECT_DEATH(list.remove(kel::Node<int>::make(9)), "removing a node that is not in the list");
    list.remove(nodes[2]);
    EXPECT_DEATH(list.remove(nodes[2]), "removing a node that is not in the list");
    EXPECT_EQ(contents(list), (std::vector<int>{1}));
}

TEST(DoublyLinkedListNodeLifetime, BackwardLinksNeverKeepNodesAliveAndLongListsFreeIteratively) {
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

    // Freeing a million nodes by recursion would overflow the stack.
    {
        List list;
        for (int value = 0; value < 1'000'000; ++value) {
            list.append(kel::Node<int>::make(value));
        }
        watched.assign({list.tail()});
    }
    EXPECT_TRUE(watched[0].expired());
}

}  // namespace
