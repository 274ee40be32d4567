#include "kel/Platform/WeakMapTable.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

struct Object {
    int id = 0;
};

TEST(WeakMapTableEntries, KeyedByOwnerIdentity) {
    kel::WeakMapTable<Object, std::string> table;
    auto first = std::make_shared<Object>();
    auto second = std::make_shared<Object>();
    table.set(first, "a");
    table.set(second, "b");
    table.set(first, "c");
    EXPECT_EQ(*table.find(first), "c");
    EXPECT_EQ(*table.find(second), "b");
    EXPECT_FALSE(table.contains(std::make_shared<Object>()));

    // An aliasing pointer shares its owner, so it names the same entry.
    kel::WeakMapTable<int, std::string> byMember;
    byMember.set(std::shared_ptr<int>(first, &first->id), "x");
    EXPECT_TRUE(byMember.contains(std::shared_ptr<int>(first, &first->id)));

    EXPECT_TRUE(table.remove(first));
    EXPECT_FALSE(table.remove(first));
    EXPECT_EQ(table.count(), 1u);
}

TEST(WeakMapTableLifetime, KeepsNoKeyAliveAndReleasesValuesOfDeadOnes) {
    kel::WeakMapTable<Object, std::shared_ptr<int>> table;
    auto value = std::make_shared<int>(1);
    auto survivor = std::make_shared<Object>();
    table.set(survivor, value);
    auto object = std::make_shared<Object>();
    std::weak_ptr<Object> watcher = object;
    table.set(object, value);
    object.reset();
    EXPECT_TRUE(watcher.expired());
    EXPECT_EQ(table.count(), 1u);
    EXPECT_EQ(value.use_count(), 3);  // the dead key's value is held until the table prunes
    table.prune();
    EXPECT_EQ(value.use_count(), 2);

    // The table prunes whenever it has doubled, so dead entries do not accumulate.
    for (int i = 0; i < 10000; ++i) {
        table.set(std::make_shared<Object>(), value);
    }
    EXPECT_LT(value.use_count(), 40);
    ASSERT_EQ(table.entries().size(), 1u);
    EXPECT_EQ(table.entries().front().first, survivor);
}

}  // namespace
