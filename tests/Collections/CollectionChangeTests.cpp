#include "kel/Collections/CollectionChange.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <string>
#include <vector>

namespace {

using Strings = std::vector<std::string>;
using Change = kel::CollectionChange<std::string>;

struct Replay {
    Strings start;
    std::vector<Change> changes;
    Strings expected;
};

// Each replay must give the same result on a plain vector and on a UniqueCollection.
const std::vector<Replay> replays{
    {{"a", "b"},
     {Change::adding("c"), Change::removing("a"), Change::removing("missing"), Change::adding("d")},
     {"b", "c", "d"}},
    // x sat at position 1; y's target 3 becomes 2 once x is gone.
    {{"a", "x", "b", "c", "y"},
     {Change::removing("x"), Change::reordering("y", 3)},
     {"a", "b", "y", "c"}},
    // A target at or below the removed position is left alone.
    {{"a", "b", "x", "y"}, {Change::removing("x"), Change::reordering("y", 2)}, {"a", "b", "y"}},
    // a: 0 -> 2 moves positions above 0 down and those above 2 up: e's target 1 becomes 0.
    {{"a", "b", "c", "d", "e"},
     {Change::reordering("a", 2), Change::reordering("e", 1)},
     {"e", "b", "c", "a", "d"}},
    // Targets equal to an earlier move's destination or source: a 0 -> 2 turns e's 2 into 1,
    // b 1 -> 3 leaves e's 1 alone.
    {{"a", "b", "c", "d", "e"},
     {Change::reordering("a", 2), Change::reordering("e", 2)},
     {"b", "e", "c", "a", "d"}},
    {{"a", "b", "c", "d", "e"},
     {Change::reordering("b", 3), Change::reordering("e", 1)},
     {"a", "e", "c", "d", "b"}},
    // e: 4 -> 0 shifts c's target 3 to 4.
    {{"a", "b", "c", "d", "e"},
     {Change::reordering("e", 0), Change::reordering("c", 3)},
     {"e", "a", "b", "d", "c"}},
    // Skipped changes correct nothing.
    {{"a", "b", "c"},
     {Change::removing("z"), Change::reordering("z", 0), Change::reordering("c", 1)},
     {"a", "c", "b"}},
};

TEST(ApplyChanges, RemovalsAndReorderingsCorrectTheTargetsOfLaterReorderings) {
    for (const Replay& replay : replays) {
        Strings strings = replay.start;
        kel::applyChanges(strings, replay.changes);
        EXPECT_EQ(strings, replay.expected);

        kel::UniqueCollection<std::string> unique(replay.start);
        kel::applyChanges(unique, replay.changes);
        EXPECT_EQ(unique.array(), replay.expected);
    }
}

// The rule applied literally: one linear search per change, and after each change every later
// reordering's target corrected one by one. Returns how many changes it got through before one
// that would stop the process (a target out of range, or a repeated identifier when `unique`).
std::size_t replayLiterally(Strings& strings, const std::vector<Change>& changes, bool unique) {
    std::vector<std::ptrdiff_t> targets;
    for (const Change& change : changes) {
        targets.push_back(change.toIndex());
    }
    for (std::size_t i = 0; i < changes.size(); ++i) {
        const Change& change = changes[i];
        auto found = std::find(strings.begin(), strings.end(), change.element());
        if (change.kind() == Change::Kind::adding) {
            if (unique && found != strings.end()) {
                return i;
            }
            strings.push_back(change.element());
            continue;
        }
        if (found == strings.end()) {
            continue;
        }
        const auto from = found - strings.begin();
        const std::ptrdiff_t to = targets[i];
        const bool reordering = change.kind() == Change::Kind::reordering;
        if (reordering && (to < 0 || to >= static_cast<std::ptrdiff_t>(strings.size()))) {
            return i;
        }
        std::string moved = *found;
        strings.erase(found);
        if (reordering) {
            strings.insert(strings.begin() + to, moved);
        }
        for (std::size_t later = i + 1; later < changes.size(); ++later) {
            std::ptrdiff_t& u = targets[later];
            u = reordering ? u + (to < u) - (from < u) : u - (u > from);
        }
    }
    return changes.size();
}

// Replays `changes` literally, cut before the first change that would stop the process, and
// expects applyChanges to give the same on a vector and, when `unique`, on a UniqueCollection
// whose identifier table follows. Returns how many changes were kept.
std::size_t expectSameAsLiteral(const Strings& start, std::vector<Change> changes, bool unique) {
    Strings expected = start;
    const std::size_t applied = replayLiterally(expected, changes, unique);
    changes.erase(changes.begin() + static_cast<std::ptrdiff_t>(applied), changes.end());
    Strings strings = start;
    kel::applyChanges(strings, changes);
    EXPECT_EQ(strings, expected);
    if (unique) {
        kel::UniqueCollection<std::string> collection(start);
        kel::applyChanges(collection, changes);
        EXPECT_EQ(collection.array(), expected);
        for (std::size_t position = 0; position < expected.size(); ++position) {
            EXPECT_EQ(collection.indexOf(expected[position]), position);
        }
    }
    return applied;
}

// `count` random changes: additions of `added()`, removals and reorderings (to `target()`) of
// `existing()`.
template <class Added, class Existing, class Target>
std::vector<Change> randomChanges(std::mt19937& random, int count, Added added, Existing existing,
                                  Target target) {
    std::vector<Change> changes;
    for (; count > 0; --count) {
        const auto kind = random() % 3;
        std::string element = kind == 0 ? added() : existing();
        changes.push_back(kind == 0   ? Change::adding(std::move(element))
                          : kind == 1 ? Change::removing(std::move(element))
                                      : Change::reordering(std::move(element), target()));
    }
    return changes;
}

TEST(ApplyChanges, LongChangeListsMatchTheRuleAppliedLiterally) {
    std::mt19937 random(7);
    Strings start;
    for (int i = 0; i < 300; ++i) {
        start.push_back("s" + std::to_string(i));
    }
    int fresh = 0;
    const auto changes = randomChanges(
        random, 3000, [&] { return "n" + std::to_string(fresh++); },
        [&] { return "s" + std::to_string(random() % 300); },
        [&] { return static_cast<int>(random() % 40); });
    EXPECT_EQ(expectSameAsLiteral(start, changes, true), changes.size());
}

// Thousands of short random lists over a handful of identifiers, so that removals, moves,
// re-additions, missing elements, duplicates (in a vector) and targets at the edges all meet.
// Each list is cut before the first change that would stop the process.
TEST(ApplyChanges, ShortRandomChangeListsMatchTheRuleAppliedLiterally) {
    std::mt19937 random(11);
    const auto pick = [&](int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(random);
    };
    const Strings pool{"a", "b", "c", "d", "e", "f"};
    const auto anyElement = [&] { return pool[static_cast<std::size_t>(pick(0, 5))]; };
    for (int round = 0; round < 4000; ++round) {
        const bool unique = round % 2 == 1;
        Strings start = pool;
        std::shuffle(start.begin(), start.end(), random);
        start.resize(static_cast<std::size_t>(pick(0, 5)));
        if (!unique) {
            for (std::string& element : start) {
                element = pool[static_cast<std::size_t>(pick(0, 3))];
            }
        }
        const auto changes =
            randomChanges(random, pick(0, 12), anyElement, anyElement, [&] { return pick(-1, 7); });
        SCOPED_TRACE(::testing::Message() << "round " << round);
        expectSameAsLiteral(start, changes, unique);
        ASSERT_FALSE(HasFailure());
    }
}

struct Row {
    std::string id;
    int version;
    // Computed, so the replay cannot keep a view of it.
    std::string identifier() const { return id; }
};

TEST(ApplyChanges, BuildsAddedElementsWithTheConstructor) {
    std::deque<Row> rows{{"a", 1}, {"b", 1}};
    kel::applyChanges(
        rows, std::vector{Change::adding("c"), Change::reordering("c", 0), Change::removing("a")},
        [](const std::string& id) {
            return Row{id, 2};
        });
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].id + std::to_string(rows[0].version) + rows[1].id, "c2b");
}

TEST(ApplyChangesDeathTest, TargetsOutsideTheCollectionStopTheProcess) {
    Strings strings{"a", "b"};
    EXPECT_DEATH(kel::applyChanges(strings, {Change::reordering("a", 2)}),
                 "reordering target out of range");
    EXPECT_DEATH(kel::applyChanges(strings, {Change::reordering("a", -1)}),
                 "reordering target out of range");
    kel::UniqueCollection<std::string> unique{"a", "b"};
    EXPECT_DEATH(kel::applyChanges(unique, {Change::adding("a")}), "identifier \"a\"");
    // The first failing change stops the process, here before the repeated identifier.
    EXPECT_DEATH(kel::applyChanges(unique, {Change::reordering("a", 2), Change::adding("b")}),
                 "reordering target out of range");
}

}  // namespace
