#include "kel/Collections/CollectionChange.hpp"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

namespace {

using Strings = std::vector<std::string>;
using Change = kel::CollectionChange<std::string>;

// The same replays must give the same result on a plain vector and on a UniqueCollection.
template <class Collection>
class ApplyChanges : public ::testing::Test {
  protected:
    static Collection make(const Strings& elements) {
        if constexpr (std::is_same_v<Collection, Strings>) {
            return elements;
        } else {
            return Collection(elements);
        }
    }
    static Strings contents(const Collection& collection) {
        return Strings(collection.begin(), collection.end());
    }
    static Strings replay(const Strings& start, const std::vector<Change>& changes) {
        Collection collection = make(start);
        kel::applyChanges(collection, changes);
        return contents(collection);
    }
};
using Collections = ::testing::Types<Strings, kel::UniqueCollection<std::string>>;
TYPED_TEST_SUITE(ApplyChanges, Collections);

TYPED_TEST(ApplyChanges, AddsAtTheEndAndRemovesByIdentifier) {
    EXPECT_EQ(this->replay({"a", "b"}, {Change::adding("c"), Change::removing("a"),
                                        Change::removing("missing"), Change::adding("d")}),
              (Strings{"b", "c", "d"}));
    EXPECT_EQ(this->replay({}, {}), Strings{});
}

TYPED_TEST(ApplyChanges, RemovalShiftsLaterTargetsAboveTheRemovedPosition) {
    // x sat at position 1; y's target 3 becomes 2 once x is gone.
    EXPECT_EQ(this->replay({"a", "x", "b", "c", "y"},
                           {Change::removing("x"), Change::reordering("y", 3)}),
              (Strings{"a", "b", "y", "c"}));
    // A target at or below the removed position is left alone.
    EXPECT_EQ(
        this->replay({"a", "b", "x", "y"}, {Change::removing("x"), Change::reordering("y", 2)}),
        (Strings{"a", "b", "y"}));
}

TYPED_TEST(ApplyChanges, ReorderingCorrectsTheTargetsOfLaterReorderings) {
    // a: 0 -> 2 moves positions above 0 down and those above 2 up: e's target 1 becomes 0.
    EXPECT_EQ(this->replay({"a", "b", "c", "d", "e"},
                           {Change::reordering("a", 2), Change::reordering("e", 1)}),
              (Strings{"e", "b", "c", "a", "d"}));
    // e: 4 -> 0 shifts c's target 3 to 4.
    EXPECT_EQ(this->replay({"a", "b", "c", "d", "e"},
                           {Change::reordering("e", 0), Change::reordering("c", 3)}),
              (Strings{"e", "a", "b", "d", "c"}));
}

TYPED_TEST(ApplyChanges, SkippedChangesCorrectNothing) {
    EXPECT_EQ(this->replay({"a", "b", "c"}, {Change::removing("z"), Change::reordering("z", 0),
                                             Change::reordering("c", 1)}),
              (Strings{"a", "c", "b"}));
}

TYPED_TEST(ApplyChanges, MixedSequenceCorrectsEveryLaterReordering) {
    // remove b        -> [a c d e f]     later targets 4, 1, 3 become 3, 1, 2
    // reorder f to 3  -> [a c d f e]     f went from 4 to 3: targets 1 and 2 stay
    // add g           -> [a c d f e g]
    // reorder a to 1  -> [c a d f e g]   a went from 0 to 1: target 2 stays
    // reorder g to 2  -> [c a g d f e]
    EXPECT_EQ(this->replay({"a", "b", "c", "d", "e", "f"},
                           {Change::removing("b"), Change::reordering("f", 4), Change::adding("g"),
                            Change::reordering("a", 1), Change::reordering("g", 3)}),
              (Strings{"c", "a", "g", "d", "f", "e"}));
}

struct Row {
    std::string id;
    int version;
    const std::string& identifier() const { return id; }
};

TEST(ApplyChangesConversion, BuildsAddedElementsWithTheConstructor) {
    std::deque<Row> rows{{"a", 1}, {"b", 1}};
    const std::vector<Change> changes{Change::adding("c"), Change::reordering("c", 0),
                                      Change::removing("a")};
    kel::applyChanges(rows, changes, [](const std::string& id) { return Row{id, 2}; });
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].id, "c");
    EXPECT_EQ(rows[0].version, 2);
    EXPECT_EQ(rows[1].id, "b");
}

TEST(ApplyChangesDeathTest, TargetsOutsideTheCollectionStopTheProcess) {
    Strings strings{"a", "b"};
    EXPECT_DEATH(kel::applyChanges(strings, {Change::reordering("a", 2)}),
                 "reordering target out of range");
    EXPECT_DEATH(kel::applyChanges(strings, {Change::reordering("a", -1)}),
                 "reordering target out of range");
    kel::UniqueCollection<std::string> unique{"a", "b"};
    EXPECT_DEATH(kel::applyChanges(unique, {Change::adding("a")}), "identifier \"a\"");
}

}  // namespace
