#include "Watchdog.hpp"
#include "kel/Collections/Observable.hpp"
#include "kel/Collections/Reportable.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using kel::Observable;
using kel::Reportable;

// Equal when the ids are equal, whatever the name, so a test can see an equal value stored.
struct User {
    int id;
    std::string name;
    friend bool operator==(const User& a, const User& b) { return a.id == b.id; }
};

// Registration calls nothing; next notifies; quiet only stores, and triggerObservers delivers
// the stored value. nextOnlyIfChanged stores an equal value anyway, notifies for it only when
// onlyIfChanged is false, and answers whether the value differed.
TEST(ObservableTest, NextQuietTriggerAndOnlyIfChanged) {
    auto user = Observable<User>::make(User{1, "alice"});
    std::vector<std::string> seen;
    user->onNext([&](const User& value) { seen.push_back(value.name); });
    EXPECT_FALSE(user->nextOnlyIfChanged(User{1, "Alice"}, true));
    EXPECT_EQ(user->value().name, "Alice");
    EXPECT_TRUE(seen.empty());
    EXPECT_FALSE(user->nextOnlyIfChanged(User{1, "ALICE"}, false));
    EXPECT_TRUE(user->nextOnlyIfChanged(User{2, "bob"}, true));
    user->next(User{3, "carol"});
    user->next(User{4, "dave"}, true);
    EXPECT_EQ(seen, (std::vector<std::string>{"ALICE", "bob", "carol"}));
    user->triggerObservers();
    EXPECT_EQ(seen, (std::vector<std::string>{"ALICE", "bob", "carol", "dave"}));
}

// A token re-pointed to an object of the observer's owner works while it lives; once it is gone
// (or the token is given null) the observer is skipped and dropped from the list at that
// notification (the list's share of the token goes).
TEST(ObservableTest, KeepAliveObjectsBoundObservers) {
    auto progress = Observable<int>::make(0);
    int screenCalls = 0;
    int cancelledCalls = 0;
    auto screen = std::make_shared<int>(0);
    std::shared_ptr<kel::Disposable> screenToken =
        progress->onNext([&](const int&) { ++screenCalls; });
    screenToken->keepAlive(screen);
    std::shared_ptr<kel::Disposable> cancelled =
        progress->onNext([&](const int&) { ++cancelledCalls; });
    cancelled->keepAlive(nullptr);

    progress->next(1);
    EXPECT_EQ(screenCalls, 1);
    EXPECT_EQ(cancelledCalls, 0);
    EXPECT_EQ(cancelled.use_count(), 1);
    EXPECT_EQ(screenToken.use_count(), 2);

    screen.reset();
    progress->next(2);
    EXPECT_EQ(screenCalls, 1);
    EXPECT_EQ(screenToken.use_count(), 1);
}

// An observer registered during a notification waits for the next one but is kept; an observer
// may call next again: the nested notification runs, and every observer reads the value afresh.
TEST(ObservableTest, RegistrationAndNextFromInsideAnObserver) {
    auto value = Observable<int>::make(0);
    std::vector<std::string> seen;
    value->onNext([&](const int& current) {
        seen.push_back("first " + std::to_string(current));
        if (current == 1) {
            value->onNext(
                [&](const int& later) { seen.push_back("added " + std::to_string(later)); });
            value->next(2);
        }
    });
    value->onNext([&](const int& current) { seen.push_back("second " + std::to_string(current)); });
    value->next(1);
    EXPECT_EQ(seen,
              (std::vector<std::string>{"first 1", "first 2", "second 2", "added 2", "second 2"}));
    seen.clear();
    value->next(3);
    EXPECT_EQ(seen, (std::vector<std::string>{"first 3", "second 3", "added 3"}));
}

// Off the main thread reads and writes go through the lock: readers never see a torn value.
TEST(ObservableTest, BackgroundReadersNeverSeeATornValue) {
    auto text = Observable<std::string>::make(std::string(64, 'a'));
    std::atomic<bool> done = false;
    std::atomic<int> torn = 0;
    std::thread reader([&] {
        while (!done) {
            std::string read = text->value();
            torn += read.find_first_not_of(read.front()) != std::string::npos ? 1 : 0;
        }
    });
    std::thread writer([&] {
        for (int round = 0; round < 2000; ++round) {
            text->next(std::string(64 + round % 7, static_cast<char>('a' + round % 26)), true);
        }
        done = true;
    });
    writer.join();
    reader.join();
    EXPECT_EQ(torn, 0);
}

// While another thread writes, lock-free main-thread reads see only stored values, never an
// older one than the last read, and never a node the writer replaced and freed. The main thread
// reads until it has seen the value change 50 times, so reads and writes surely overlap.
TEST(ObservableTest, MainThreadReadsWhileBackgroundThreadWrites) {
    auto textFor = [](int round) {
        return std::to_string(round) + std::string(40, static_cast<char>('a' + round % 26));
    };
    auto text = Observable<std::string>::make(textFor(0));
    std::atomic<bool> stop = false;
    int lastWritten = 0;
    std::thread writer([&] {
        while (!stop) {
            text->next(textFor(++lastWritten), true);
        }
    });
    int lastRead = 0;
    int changes = 0;
    int wrong = 0;
    while (changes < 50) {
        const std::string read = text->value();
        const int round = std::stoi(read);
        wrong += round < lastRead || read != textFor(round) ? 1 : 0;
        changes += round != lastRead ? 1 : 0;
        lastRead = round;
    }
    stop = true;
    writer.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(text->value(), textFor(lastWritten));
}

// A value whose live copies are counted, to see replaced values freed.
struct Counted {
    explicit Counted(std::atomic<int>& live) : live(&live) { ++live; }
    Counted(const Counted& other) : live(other.live) { ++*live; }
    Counted& operator=(const Counted&) = delete;
    ~Counted() { --*live; }
    std::atomic<int>* live;
};

// Values replaced off the main thread do not pile up: before the main thread's first read they
// are freed by the writer at once; after it, by the main thread's loop once 64 of them wait,
// though the main thread never reads the observable again.
TEST(ObservableTest, ValuesReplacedOffTheMainThreadAreFreed) {
    std::atomic<int> live = 0;
    auto observable = Observable<Counted>::make(Counted(live));
    auto writeFromAnotherThread = [&](int count) {
        std::thread([&] {
            for (int i = 0; i < count; ++i) {
                observable->next(Counted(live), true);
            }
        }).join();
    };
    writeFromAnotherThread(200);
    EXPECT_EQ(live, 1) << "nothing replaced may be kept while the main thread has not read";

    (void)observable->value();
    writeFromAnotherThread(200);
    EXPECT_TRUE(kel::test::pumpUntil([&] { return live == 1; }));
}

// Callables run in order with the value; one appended during a trigger waits for the next;
// reset forgets them all.
TEST(ReportableTest, TriggerInOrderAndReset) {
    Reportable<double> progress;
    std::vector<std::string> seen;
    progress.then([&](const double& value) {
        seen.push_back("bar " + std::to_string(static_cast<int>(value * 100)));
        progress.then([&](const double&) { seen.push_back("late"); });
    });
    progress.then([&](const double&) { seen.push_back("label"); });
    progress.trigger(0.5);
    EXPECT_EQ(seen, (std::vector<std::string>{"bar 50", "label"}));
    progress.reset();
    progress.trigger(1.0);
    EXPECT_EQ(seen.size(), 2U);
}

}  // namespace
