#include "kel/Platform/WeakMapTable.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

struct Object {
    int id = 0;
};

// A value that counts how many of its kind are alive, to see when the table lets go of values.
struct CountedValue {
    explicit CountedValue(std::shared_ptr<int> counter) : counter(std::move(counter)) {
        ++*this->counter;
    }
    CountedValue(const CountedValue& other) : counter(other.counter) { ++*counter; }
    CountedValue& operator=(const CountedValue&) = default;
    ~CountedValue() { --*counter; }
    std::shared_ptr<int> counter;
};

TEST(WeakMapTableEntries, KeyedByObjectIdentityAndReplaced) {
    kel::WeakMapTable<Object, std::string> table;
    auto first = std::make_shared<Object>();
    auto second = std::make_shared<Object>();

    table.set(first, "a");
    table.set(second, "b");
    table.set(first, "c");

    ASSERT_NE(table.find(first), nullptr);
    EXPECT_EQ(*table.find(first), "c");
    EXPECT_EQ(*table.find(second), "b");
    EXPECT_EQ(table.count(), 2u);

    // An aliasing pointer shares the owner, so it names the same entry.
    EXPECT_FALSE(table.contains(std::make_shared<Object>()));
    EXPECT_TRUE(table.remove(first));
    EXPECT_FALSE(table.remove(first));
    EXPECT_EQ(table.find(first), nullptr);
    EXPECT_EQ(table.count(), 1u);
}

TEST(WeakMapTableEntries, AliasingPointersShareTheEntryOfTheirOwner) {
    auto owner = std::make_shared<Object>();
    std::shared_ptr<int> alias(owner, &owner->id);
    kel::WeakMapTable<int, std::string> table;
    table.set(alias, "x");
    EXPECT_TRUE(table.contains(std::shared_ptr<int>(owner, &owner->id)));
}

TEST(WeakMapTableLifetime, DoesNotKeepKeysAliveAndForgetsDeadOnes) {
    kel::WeakMapTable<Object, std::string> table;
    auto object = std::make_shared<Object>();
    std::weak_ptr<Object> watcher = object;
    table.set(object, "value");

    object.reset();
    EXPECT_TRUE(watcher.expired());
    EXPECT_EQ(table.count(), 0u);
    EXPECT_TRUE(table.entries().empty());

    // A new object, even one allocated where the old one lived, is not the dead key.
    auto replacement = std::make_shared<Object>();
    EXPECT_FALSE(table.contains(replacement));
}

TEST(WeakMapTableLifetime, ReleasesValuesOfDeadKeysWhenPruning) {
    auto alive = std::make_shared<int>(0);
    kel::WeakMapTable<Object, CountedValue> table;
    auto object = std::make_shared<Object>();
    table.set(object, CountedValue(alive));
    EXPECT_EQ(*alive, 1);

    object.reset();
    EXPECT_EQ(*alive, 1);
    table.prune();
    EXPECT_EQ(*alive, 0);
}

TEST(WeakMapTableLifetime, InsertingManyShortLivedKeysKeepsTheTableSmall) {
    auto alive = std::make_shared<int>(0);
    kel::WeakMapTable<Object, CountedValue> table;
    auto survivor = std::make_shared<Object>();
    table.set(survivor, CountedValue(alive));
    for (int i = 0; i < 10000; ++i) {
        auto transient = std::make_shared<Object>();
        table.set(transient, CountedValue(alive));
    }
    // Automatic pruning happens each time the table doubles, so at most a small multiple of
    // the live entries remain.
    EXPECT_LT(*alive, 40);
    EXPECT_TRUE(table.contains(survivor));
    auto entries = table.entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries.front().first, survivor);
}

}  // namespace
