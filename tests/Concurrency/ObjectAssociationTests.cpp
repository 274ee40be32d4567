#include "kel/Concurrency/ObjectAssociation.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using kel::AssociationPolicy;
using kel::ObjectAssociation;

struct View : kel::Object {};

struct Tracked {
    std::string name;
};

// Values live per object and per association: another association of the same type, or
// another object, finds nothing; std::nullopt removes a value.
TEST(ObjectAssociationTest, ValuesPerObjectAndPerAssociation) {
    ObjectAssociation<std::string> title(AssociationPolicy::strong);
    ObjectAssociation<std::string> subtitle(AssociationPolicy::copy);
    auto first = std::make_shared<View>(), second = std::make_shared<View>();

    title.set(*first, "Inbox");
    EXPECT_EQ(subtitle.get(*first), std::nullopt);
    EXPECT_EQ(title.get(*second), std::nullopt);
    subtitle.set(*first, "3 unread");
    title.set(*first, "Archive");
    EXPECT_EQ(title.get(*first), "Archive");
    title.set(*first, std::nullopt);
    EXPECT_EQ(title.get(*first), std::nullopt);
    EXPECT_EQ(subtitle.get(*first), "3 unread");
}

// strong shares the pointee and keeps it until the object goes; weak does not keep it; copy
// holds a copy of its own.
TEST(ObjectAssociationTest, PoliciesForSharedObjects) {
    ObjectAssociation<std::shared_ptr<Tracked>> strong(AssociationPolicy::strong);
    ObjectAssociation<std::shared_ptr<Tracked>> weak(AssociationPolicy::weak);
    ObjectAssociation<std::shared_ptr<const Tracked>> copy(AssociationPolicy::copy);
    auto view = std::make_shared<View>();
    auto model = std::make_shared<Tracked>(Tracked{"model"});
    std::weak_ptr<Tracked> watched = model;

    strong.set(*view, model);
    weak.set(*view, model);
    copy.set(*view, model);
    EXPECT_EQ(strong.get(*view), model);
    EXPECT_EQ(weak.get(*view), model);
    ASSERT_TRUE(copy.get(*view).has_value());
    EXPECT_NE(copy.get(*view)->get(), model.get());
    model->name = "changed";
    EXPECT_EQ((*copy.get(*view))->name, "model");

    model.reset();
    EXPECT_FALSE(watched.expired());
    strong.set(*view, std::nullopt);
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(weak.get(*view), std::nullopt);

    auto held = std::make_shared<Tracked>();
    watched = held;
    strong.set(*view, std::move(held));
    view.reset();
    EXPECT_TRUE(watched.expired());
}

// Threads writing and reading their own associations on one fresh object: the slot is made once
// and no value is lost.
TEST(ObjectAssociationTest, ConcurrentFirstWritesMakeOneSlotAndLoseNoValue) {
    const auto strong = [] { return ObjectAssociation<int>(AssociationPolicy::strong); };
    const ObjectAssociation<int> associations[] = {strong(), strong(), strong(), strong()};
    auto view = std::make_shared<View>();
    std::vector<std::jthread> threads;
    for (const ObjectAssociation<int>& association : associations) {
        threads.emplace_back([&] {
            for (int round = 0; round < 200; ++round) {
                association.set(*view, round);
            }
        });
    }
    threads.clear();
    for (const ObjectAssociation<int>& association : associations) {
        EXPECT_EQ(association.get(*view), 199);
    }
}

TEST(ObjectAssociationDeathTest, WeakNeedsASharedPointer) {
    EXPECT_DEATH(ObjectAssociation<int>(AssociationPolicy::weak), "weak policy");
}

}  // namespace
