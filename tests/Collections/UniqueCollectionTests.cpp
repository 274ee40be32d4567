#include "kel/Collections/UniqueCollection.hpp"
#include "kel/Collections/UniqueParentChildCollection.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <ranges>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Strings = std::vector<std::string>;

struct Model {
    std::string id;
    int version = 0;
    const std::string& identifier() const { return id; }
    friend bool operator==(const Model&, const Model&) = default;
    friend std::ostream& operator<<(std::ostream& stream, const Model& model) {
        return stream << model.id << "@" << model.version;
    }
};

static_assert(!kel::Identifiable<int>);

TEST(UniqueCollectionBuilding,
     FindsByIdentifierKeepsFirstUniqueAndMovesOutLeavingAnEmptyCollection) {
    kel::UniqueCollection<std::string> collection{"b", "c"};
    collection.prepend("a");
    collection.appendContentsOf(Strings{"x", "y"});
    EXPECT_EQ(collection["c"], "c");
    EXPECT_EQ(collection["z"], std::nullopt);
    EXPECT_EQ(collection.remove(3), "x");
    collection.removeFor("unknown");
    collection.removeFor("a");
    collection.append("x");  // a removed identifier may come back
    EXPECT_EQ(collection.array(), (Strings{"b", "c", "y", "x"}));

    auto moved = std::move(collection);
    EXPECT_EQ(moved.indexOf("x"), 3u);
    EXPECT_TRUE(collection.empty());  // and still usable
    collection.append("x");
    EXPECT_EQ(collection.indexOf("x"), 0u);

    EXPECT_EQ(
        kel::UniqueCollection<std::string>::keepingFirstUniqueFrom({"a", "a", "b", "a", "c", "b"})
            .array(),
        (Strings{"a", "b", "c"}));
}

TEST(UniqueCollectionReplacing, ReplacesInPlaceAndPrintsTheElementList) {
    kel::UniqueCollection<Model> collection{{"a"}, {"b"}, {"c"}};
    collection.replace(Model{"b"}, Model{"b", 2});
    collection.replace(Model{"a"}, Model{"z"});
    EXPECT_EQ(collection, (kel::UniqueCollection<Model>{{"z"}, {"b", 2}, {"c"}}));
    EXPECT_FALSE(collection.contains("a"));
    std::ostringstream stream;
    stream << collection;
    EXPECT_EQ(stream.str(), "[z@0, b@2, c@0]");
}

// Random edits checked against a plain vector: the identifier table must follow every shift,
// also after the collection was copied (each copy's table must point into its own storage).
TEST(UniqueCollectionEditing, IdentifierTableFollowsRandomEditsAndCopies) {
    std::mt19937 random(20261121);
    kel::UniqueCollection<std::string> collection;
    Strings model;
    const auto at = [&](std::size_t position) {
        return model.begin() + static_cast<std::ptrdiff_t>(position);
    };
    for (int step = 0; step < 2000; ++step) {
        const std::string fresh = "e" + std::to_string(step);
        const std::size_t size = model.size();
        const std::size_t p = std::uniform_int_distribution<std::size_t>(0, size)(random);
        const std::size_t q =
            size == 0 ? 0 : std::uniform_int_distribution<std::size_t>(0, size - 1)(random);
        if (step % 100 == 50) {
            const auto copy = collection;
            collection = copy;
        }
        switch (size == 0 ? 0 : step % 4) {
            case 0:
                collection.insert(fresh, p);
                model.insert(at(p), fresh);
                break;
            case 1:
                collection.remove(q);
                model.erase(at(q));
                break;
            case 2: {
                const std::string moved = model[q];
                collection.move(moved, p % size);
                model.erase(at(q));
                model.insert(at(p % size), moved);
                break;
            }
            default: {
                const Strings replacement{fresh, fresh + "'"};
                collection.replaceWithContentsOf(model[q], replacement);
                model.erase(at(q));
                model.insert(at(q), replacement.begin(), replacement.end());
            }
        }
    }
    ASSERT_EQ(collection.array(), model);
    for (std::size_t position = 0; position < model.size(); ++position) {
        ASSERT_EQ(collection.indexOf(model[position]), position);
    }
}

TEST(UniqueCollectionDeathTest, RepeatedIdentifiersStopTheProcess) {
    kel::UniqueCollection<Model> collection{{"a", 1}, {"b", 1}};
    EXPECT_DEATH(collection.append(Model{"a", 1}), "identifier \"a\" is already");
    EXPECT_DEATH(collection.insertContentsOf(std::vector<Model>{{"c"}, {"d"}, {"c"}}, 1),
                 "identifier \"c\" is already");
    EXPECT_DEATH((kel::UniqueCollection<std::string>{"x", "y", "x"}), "identifier \"x\"");
    EXPECT_DEATH(collection.replace(Model{"a", 1}, Model{"b", 5}), "identifier \"b\"");
    EXPECT_DEATH(kel::UniqueCollection<Model>::keepingFirstUniqueFrom(
                     std::vector<Model>{{"a", 1}, {"a", 2}}),
                 "identifier \"a\"");
}

TEST(UniqueCollectionDeathTest, PositionsOutsideAndElementsNotContainedStopTheProcess) {
    kel::UniqueCollection<std::string> collection{"a", "b"};
    EXPECT_DEATH(collection.insert("c", 3), "insertion position out of range");
    EXPECT_DEATH(collection.remove(2), "removal position out of range");
    EXPECT_DEATH(collection.move("a", 2), "move position out of range");

    kel::UniqueCollection<Model> models{{"a", 1}};
    // Same identifier, but not equal to the element held: not contained either.
    EXPECT_DEATH(models.replace(Model{"a", 2}, Model{"y"}), "cannot replace an element");
    EXPECT_DEATH(models.move(Model{"a", 2}, 0), "cannot move an element");
}

struct Section {
    std::string name;
    Strings items;
    const std::string& identifier() const { return name; }
    auto begin() const { return items.begin(); }
    auto end() const { return items.end(); }
    friend bool operator==(const Section&, const Section&) = default;
};

TEST(UniqueParentChildCollection, MapsEachChildToItsLatestParent) {
    kel::UniqueParentChildCollection<Section, std::string> index;
    const Section fruit{"fruit", {"apple", "pear"}};
    const Section green{"green", {"pear", "leaf"}};

    index.mapChildren(fruit);
    EXPECT_EQ(index["pear"], fruit);
    index.mapChildren(kel::UniqueCollection<Section>{green, fruit, Section{"empty", {}}});
    EXPECT_EQ(index["pear"], fruit);  // the later parent in collection order wins
    EXPECT_EQ(index[std::string("leaf")], green);

    index.removeChildren(fruit);
    EXPECT_EQ(index["pear"], std::nullopt);
    EXPECT_EQ(index["leaf"], green);
}

}  // namespace
