#include "CollectionsDemo.hpp"

#include <kel/Collections/Cache.hpp>
#include <kel/Collections/CollectionChange.hpp>
#include <kel/Collections/DoublyLinkedList.hpp>
#include <kel/Collections/SafeCollection.hpp>
#include <kel/Collections/Stack.hpp>
#include <kel/Collections/UniqueCollection.hpp>
#include <kel/Collections/UniqueParentChildCollection.hpp>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

struct Conversation {
    std::string id;
    std::string title;
    const std::string& identifier() const { return id; }
    friend bool operator==(const Conversation&, const Conversation&) = default;
    friend std::ostream& operator<<(std::ostream& stream, const Conversation& conversation) {
        return stream << conversation.title;
    }
};

void cacheDemo() {
    std::cout << "  profile cache:\n";
    auto profiles = kel::Cache<std::string, std::string>::make();
    std::vector<std::thread> loaders;
    for (const char* user : {"alice", "bob", "carol"}) {
        loaders.emplace_back(
            [profiles, user] { profiles->set(user, std::string("profile of ") + user); });
    }
    for (auto& loader : loaders) {
        loader.join();
    }
    const auto found = profiles->get({"alice", "carol", "dave"}, 5min);
    std::cout << "    3 loaders stored " << profiles->size() << " profiles; asking for alice, carol"
              << " and dave (at most 5 minutes old) finds " << found.size() << "\n";
    profiles->remove("bob");
    std::cout << "    after bob signs out: bob's profile is "
              << profiles->get("bob").value_or("gone") << "\n";
}

void uniqueCollectionDemo() {
    std::cout << "  conversation list:\n";
    kel::UniqueCollection<Conversation> inbox{
        {"c1", "Lunch plans"}, {"c2", "Release notes"}, {"c3", "Holiday photos"}};
    std::cout << "    inbox " << inbox << "\n";

    using Change = kel::CollectionChange<Conversation>;
    kel::applyChanges(inbox, {Change::removing({"c2", ""}), Change::adding({"c4", "New hire"}),
                              Change::reordering({"c4", ""}, 0)});
    std::cout << "    after the server's changes (remove, add, move to top): " << inbox << "\n";
    std::cout << "    lookup c3 by identifier: " << inbox.find("c3")->title << "\n";

    struct Folder {
        std::string name;
        std::vector<Conversation> conversations;
        const std::string& identifier() const { return name; }
        auto begin() const { return conversations.begin(); }
        auto end() const { return conversations.end(); }
    };
    kel::UniqueParentChildCollection<Folder, Conversation> folderOf;
    folderOf.mapChildren(Folder{"Work", {inbox[0], inbox[2]}});
    std::cout << "    c4 is filed in folder \"" << folderOf["c4"]->name << "\"\n";
}

void smallContainersDemo() {
    std::cout << "  navigation and recents:\n";
    kel::Stack<std::string> navigation;
    for (const char* screen : {"Inbox", "Conversation", "Photo"}) {
        navigation.push(screen);
    }
    std::cout << "    back from " << navigation.pop().value_or("?") << " to "
              << navigation.peek().value_or("?") << "\n";

    kel::DoublyLinkedList<std::string> recents;
    auto photo = kel::Node<std::string>::make("photo.jpg");
    recents.append(kel::Node<std::string>::make("notes.txt"));
    recents.append(photo);
    recents.remove(photo);
    recents.prepend(photo);  // most recently used goes first
    std::cout << "    recents start with " << recents.head()->value << ", end with "
              << recents.tail()->value << "\n";

    const std::vector<int> unread{3, 0, 7};
    const auto safe = kel::safe(unread);
    std::cout << "    unread in tab 2: " << safe[2].value_or(-1)
              << ", in tab 5: " << (safe[5] ? "some" : "no such tab") << "\n";
}

}  // namespace

void runCollectionsDemo() {
    std::cout << "\n== Collections\n";
    cacheDemo();
    uniqueCollectionDemo();
    smallContainersDemo();
}
