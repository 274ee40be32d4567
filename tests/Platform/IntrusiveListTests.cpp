#include "kel/Platform/detail/IntrusiveList.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace {

using kel::detail::IntrusiveList;
using kel::detail::IntrusiveListNode;

struct Element : IntrusiveListNode<Element> {
    explicit Element(int value_) : value(value_) {}
    int value;
};

// The values front to back; a push at the back afterwards checks that the tail is right too.
std::vector<int> valuesOf(IntrusiveList<Element>& list) {
    std::vector<int> values;
    for (Element* element = list.front(); element != nullptr; element = element->nextInList()) {
        values.push_back(element->value);
    }
    EXPECT_EQ(values.size(), list.size());
    Element probe(-1);
    list.pushBack(probe);
    Element* last = list.front();
    while (last->nextInList() != nullptr) {
        last = last->nextInList();
    }
    EXPECT_EQ(last, &probe);
    list.erase(probe);
    return values;
}

TEST(IntrusiveListTests, LinksStayConsistentThroughEveryEdit) {
    Element e1(1), e2(2), e3(3), e4(4), e5(5), e6(6);
    IntrusiveList<Element> list;
    list.pushBack(e2);
    list.pushBack(e3);
    list.pushFront(e1);
    EXPECT_EQ(valuesOf(list), (std::vector<int>{1, 2, 3}));

    list.erase(e2);
    EXPECT_EQ(valuesOf(list), (std::vector<int>{1, 3}));
    list.replace(e3, e4);  // at the tail
    list.replace(e1, e2);  // at the head
    EXPECT_EQ(valuesOf(list), (std::vector<int>{2, 4}));

    IntrusiveList<Element> other;
    other.pushBack(e5);
    other.pushBack(e6);
    list.prependAll(other);
    EXPECT_TRUE(other.empty());
    EXPECT_EQ(valuesOf(list), (std::vector<int>{5, 6, 2, 4}));

    IntrusiveList<Element> empty;
    empty.prependAll(list);
    EXPECT_EQ(valuesOf(empty), (std::vector<int>{5, 6, 2, 4}));
    for (Element* element : {&e5, &e6, &e2, &e4}) {
        empty.erase(*element);
    }
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(empty.front(), nullptr);
}

}  // namespace
